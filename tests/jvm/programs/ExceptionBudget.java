import com.korvane.twutils.nativeagent.AgentCounters;
import com.korvane.twutils.nativeagent.ExceptionCounts;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;

/**
 * Throws where there is more to see than a record may hold: a long String ("string") or a long
 * StringBuilder ("builder") in the fields of this, or constants that refer to each other ("enum").
 * A second argument leaves capture to someone else.
 */
public final class ExceptionBudget {
  private static final int THROWS = 5;
  private static final int CHARACTERS = 40 << 20;

  private enum Colour {
    C0, C1, C2, C3, C4, C5, C6, C7, C8, C9, C10, C11, C12, C13, C14, C15, C16, C17, C18, C19, C20,
    C21, C22, C23, C24, C25, C26, C27, C28, C29, C30, C31, C32, C33, C34, C35, C36, C37, C38, C39
  }

  private static final class Order {
    int number = 7;
    String text;
    StringBuilder builder;
    Colour colour;

    void pay() {
      throw new IllegalStateException("refused");
    }
  }

  private static String longest = "";
  private static int cut;

  private ExceptionBudget() {}

  public static void main(String[] args) {
    Order order = new Order();
    switch (args[0]) {
      case "string":
        order.text = repeated(CHARACTERS);
        break;
      case "builder":
        order.builder = new StringBuilder(repeated(CHARACTERS / 2));
        break;
      default:
        order.colour = Colour.C3;
    }
    if (args.length == 1) {
      TWNativeAgentProfiling.setExceptionSink(ExceptionBudget::keepLongest);
      Facts.put("enable", Captured.enable(true, 0, 10, "[]"));
    }
    long most = 0;
    for (int i = 0; i < THROWS; i++) {
      long before = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
      try {
        order.pay();
      } catch (IllegalStateException e) {
        long used = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime() - before;
        most = Math.max(most, used);
      }
    }
    Facts.put("millis", most / 1_000_000);
    Facts.put("length", longest.length());
    Facts.put("begin", longest.substring(0, Math.min(longest.length(), 400)));
    Facts.put("end", longest.substring(Math.max(0, longest.length() - 40)));
    Facts.put("cut", cut);
    ExceptionCounts counts = ExceptionCounts.read();
    Facts.put("counted", counts.seen + " " + counts.delivered + " " + counts.cut);
  }

  private static void keepLongest(String record, Object exception) {
    longest = record.length() > longest.length() ? record : longest;
    cut += AgentCounters.isRecordCut() ? 1 : 0;
  }

  private static String repeated(int length) {
    byte[] text = new byte[length];
    Arrays.fill(text, (byte) 'x');
    return new String(text, StandardCharsets.ISO_8859_1);
  }
}
