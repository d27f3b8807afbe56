/** Ends while the agent is attached. Arguments: library, options, milliseconds until the end. */
public final class AttachEnding {
  private AttachEnding() {}

  public static void main(String[] args) throws Exception {
    Thread client = new Thread(() -> {
      try {
        SelfAttach.load(args[0], args[1]);
      } catch (Exception e) {
        // the VM ends meanwhile
      }
    });
    client.setDaemon(true);
    client.start();
    Thread.sleep(200 + Long.parseLong(args[2]));
    System.exit(0);
  }
}
