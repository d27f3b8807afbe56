import com.korvane.twutils.nativeagent.AgentAttach;
import java.io.File;

/** What the library answers to one after the other. Arguments: library, options. */
public final class AttachAnswers {
  private AttachAnswers() {}

  public static void main(String[] args) throws Exception {
    String library = args[0];
    String options = args[1];
    Facts.put("badOption", SelfAttach.load(library, options + ",captureSTDepth=deep"));
    Facts.put("commandWithOptions", SelfAttach.load(library, options + ",command=/tmp/x"));
    Facts.put("commandBefore", SelfAttach.load(library, "command=/tmp/x"));
    Facts.put("first", SelfAttach.load(library, options));
    Facts.put("second", SelfAttach.load(library, options + ",contention=1"));
    Facts.put("command", SelfAttach.load(library, "command=" + new File("none")));
    Facts.put("detached", String.valueOf(AgentAttach.detach()));
    Facts.put("detachedTwice", AgentAttach.detach());
    Facts.put("commandAfter", SelfAttach.load(library, "command=/tmp/x"));
    Facts.put("again", SelfAttach.load(library, options));
    Facts.put("leftover", AgentAttach.detach() == null ? "" : "something");
  }
}
