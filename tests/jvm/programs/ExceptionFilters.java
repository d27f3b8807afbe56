import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;

/** What the settings let through, and which sections they fill. */
public final class ExceptionFilters {
  private ExceptionFilters() {}

  public static void main(String[] args) {
    Facts.put("enable", Captured.everything());

    Captured.enable(true, 3, 10, "[no.such.Exception]");
    Facts.put("rate", divisions(5));
    Captured.enable(true, 4, 10, "[]"); // the count goes on
    Facts.put("rate.raised", divisions(3));
    Captured.enable(true, 0, 10, "[JAVA.lang.ArithmeticException,other]");
    Facts.put("black", divisions(3));
    Captured.enable(true, 0, 10, "(java.lang.Arithmetic)");
    Facts.put("black.prefix", divisions(1));
    Captured.enable(true, 0, 10, "[]");
    Facts.put("black.empty", divisions(2));
    Captured.enable(true, 0, 10, null);
    Facts.put("black.null", divisions(1));

    ThreadLocal<Throwers.Keeper> local = new ThreadLocal<>();
    local.set(new Throwers.Keeper("here"));
    for (int kind = 0; kind < 16; kind++) {
      TWNativeAgentProfiling.enableCaptureVariableinException(
          true, (kind & 1) != 0, (kind & 2) != 0, (kind & 4) != 0, (kind & 8) != 0, 0, 2, "[]");
      String key = "flags." + kind;
      Captured captured = fields();
      captured.tell(key);
      captured.tellThreadLocals(key);
    }
    local.remove();
    for (int depth : new int[] {-1, 0, 1, 3, 100, 500}) {
      Captured.enable(true, 0, depth, "[]");
      Captured.take();
      try {
        Throwers.recursive(150);
      } catch (IllegalStateException e) {
        for (Captured captured : Captured.take()) {
          captured.tell("depth." + depth);
        }
      }
    }
    Facts.put("disable", Captured.nothing());
    Facts.put("disabled", divisions(3));
  }

  private static int divisions(int times) {
    Captured.take();
    for (int i = 0; i < times; i++) {
      try {
        Throwers.divide(i, 0);
      } catch (ArithmeticException e) {
        Throwers.use(e);
      }
    }
    return Captured.take().size();
  }

  private static Captured fields() {
    Captured.take();
    try {
      new Throwers.Fields().fail(3);
    } catch (UnsupportedOperationException e) {
      Throwers.use(e);
    }
    return Captured.take().get(0);
  }
}
