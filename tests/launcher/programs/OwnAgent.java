/** An agent of the profiled program's own, which says what it was started with. */
public final class OwnAgent {
  private OwnAgent() {}

  public static void premain(String options) {
    System.out.println("own agent " + options);
  }
}
