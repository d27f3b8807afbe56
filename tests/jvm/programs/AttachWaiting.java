import com.korvane.twutils.nativeagent.AgentAttach;

/** Waits for a line, and reports whether the agent was attached meanwhile. */
public final class AttachWaiting {
  private AttachWaiting() {}

  public static void main(String[] args) throws Exception {
    System.out.println("ready");
    System.in.read();
    System.out.println("attached: " + AgentAttach.isAttached());
  }
}
