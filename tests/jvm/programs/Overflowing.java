/** Uses up its stack five times under the companion, and ends. */
public final class Overflowing {
  private Overflowing() {}

  public static void main(String[] args) {
    ExceptionLoss.overflow(5);
  }
}
