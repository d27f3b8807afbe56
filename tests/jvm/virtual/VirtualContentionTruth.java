/** {@link ContentionTruth} with virtual threads. */
public final class VirtualContentionTruth {
  private VirtualContentionTruth() {}

  public static void main(String[] args) throws Exception {
    ContentionTruth.run(args, Thread.ofVirtual().factory());
  }
}
