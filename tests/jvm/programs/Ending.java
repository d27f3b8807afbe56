/** The VM ends while daemon threads are contending. */
public final class Ending {
  private Ending() {}

  /** Arguments: phase, way to end, stack file. */
  public static void main(String[] args) {
    Crowd crowd = new Crowd(16, 4);
    Agent.start(17, "ending", args[2]);
    Agent.summary(17);
    crowd.awaitProgress(16);
    if (args[0].equals("detail")) {
      Agent.detail(17);
      crowd.awaitProgress(16);
    }
    System.out.println("ending");
    System.out.flush();
    switch (args[1]) {
      case "exit":
        System.exit(7);
        break;
      case "halt":
        Runtime.getRuntime().halt(9);
        break;
      default:
        break;
    }
  }
}
