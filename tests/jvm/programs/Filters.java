import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.ByteArrayOutputStream;
import java.text.ParsePosition;
import java.util.ArrayList;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * A session with all four filter texts and room for two classes. The text of the package
 * java.util.concurrent.atomic holds the name of the package java.util, too.
 */
public final class Filters {
  private Filters() {}

  public static void main(String[] args) {
    TWNativeAgentProfiling.startMemoryLeaksProfileSession(true, 60, 1, "filters", 2,
        "java.lang.StringBuilder", "java.util.concurrent.atomic", "java.lang.Object", "none");
    Tags.collect();
    Tags tags = new Tags();
    tags.keep(300, StringBuilder::new);
    tags.keep(200, AtomicInteger::new);
    tags.keep(100, ByteArrayOutputStream::new);
    tags.keep(50, () -> new ParsePosition(0));
    tags.keep(1000, ArrayList::new);
    tags.keep(100, Object::new);
    Tags.collect();
    Facts.put("stop", Tags.stop(1, "report.json"));
    Facts.put("kept", tags.hashCode() != 0);
  }
}
