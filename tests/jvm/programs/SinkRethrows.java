import com.korvane.twutils.nativeagent.ExceptionCounts;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.CompletableFuture;

/** A sink throws what looks least like its own. None of it is to reach the program. */
public final class SinkRethrows {
  private static final int THROWS = 5;
  private static final RuntimeException MADE_BEFORE = new IllegalArgumentException("made before");

  private SinkRethrows() {}

  private static int fail(int depth) {
    if (depth == 0) {
      throw new IllegalArgumentException("in the sink");
    }
    return fail(depth - 1) + 1;
  }

  /** Argument: "elsewhere" (made by another thread), "before", or "deep". */
  public static void main(String[] args) throws InterruptedException {
    CompletableFuture<Integer> upload =
        CompletableFuture.supplyAsync(() -> fail(0)).thenApply(each -> each);
    while (!upload.isDone()) {
      Thread.sleep(1);
    }
    TWNativeAgentProfiling.setExceptionSink(
        (record, exception) -> {
          switch (args[0]) {
            case "elsewhere":
              upload.join();
              break;
            case "before":
              throw MADE_BEFORE;
            default:
              fail(40);
          }
        });
    int caught = 0;
    Captured.enable(true, 0, 30, "[]");
    for (int i = 0; i < THROWS; i++) {
      try {
        throw new IllegalStateException("the program's own");
      } catch (IllegalStateException e) {
        caught++;
      }
    }
    Captured.nothing();
    Facts.put("caught", caught);
    Facts.put("failed", ExceptionCounts.read().failedCallback);
  }
}
