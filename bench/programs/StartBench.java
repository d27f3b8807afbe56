/** Lives for so many milliseconds, and ends. Usage: {@code StartBench MILLIS}. */
public final class StartBench {
  private StartBench() {}

  public static void main(String[] args) throws InterruptedException {
    Thread.sleep(Long.parseLong(args[0]));
  }
}
