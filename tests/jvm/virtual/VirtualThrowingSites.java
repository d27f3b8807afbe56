/** Virtual threads that throw at the same sites. */
public final class VirtualThrowingSites {
  private VirtualThrowingSites() {}

  public static void main(String[] args) throws InterruptedException {
    ThrowingSites.run(Thread::startVirtualThread, false);
  }
}
