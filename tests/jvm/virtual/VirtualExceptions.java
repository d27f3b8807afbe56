/** Virtual threads that throw at once. */
public final class VirtualExceptions {
  private VirtualExceptions() {}

  public static void main(String[] args) {
    ExceptionThreads.run(Thread::startVirtualThread);
  }
}
