import java.util.ArrayList;
import java.util.List;

/** The heap is full to the last kilobyte when the VM throws, so that nothing can be delivered. */
public final class ExceptionLowMemory {
  private ExceptionLowMemory() {}

  public static void main(String[] args) {
    Captured.everything();
    int errors = 0;
    List<Object> hoard = new ArrayList<>(1 << 20);
    for (int size = 1 << 20; size > 16; size /= 4) {
      try {
        for (;;) {
          hoard.add(new byte[size]);
        }
      } catch (OutOfMemoryError e) {
        errors++;
      }
    }
    for (int i = 0; i < 5; i++) {
      try {
        Throwers.texts("full", new StringBuilder("full"), null, null);
      } catch (IllegalStateException | OutOfMemoryError e) {
        errors++;
      }
    }
    hoard.clear();
    Captured.everything();
    Captured.take();
    try {
      Throwers.divide(1, 0);
    } catch (ArithmeticException e) {
      Facts.put("after", Captured.take().size());
    }
    Facts.put("errors", errors);
  }
}
