/** The steps of {@link Parks} with virtual threads. */
public final class VirtualParks {
  private VirtualParks() {}

  public static void main(String[] steps) throws Exception {
    Parks.run(steps, Thread.ofVirtual().factory());
  }
}
