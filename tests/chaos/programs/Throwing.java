import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Exceptions on stacks of one frame and of thousands, and errors of the VM itself. */
final class Throwing implements Storm {
  private static final int DEEPEST = 5000;
  private static final int[] DEPTHS = {1, 3, 20, 120, DEEPEST};
  private static final ThreadLocal<StringBuilder> SCRATCH =
      ThreadLocal.withInitial(StringBuilder::new);

  private final AtomicLong thrown = new AtomicLong();
  private final AtomicLong overflows = new AtomicLong();
  private final AtomicLong exhausted = new AtomicLong();
  private int sum;

  @Override
  public int threads() {
    return 8;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) {
    while (goesOn.getAsBoolean()) {
      SCRATCH.get().append('x');
      if (SCRATCH.get().length() > 1000) {
        SCRATCH.remove();
      }
      switch (random.nextInt(40)) {
        case 0:
          overflow();
          break;
        case 1:
          exhaust();
          break;
        default:
          once(random, DEPTHS[random.nextInt(DEPTHS.length)]);
      }
    }
  }

  private void once(Random random, int depth) {
    String text = "number " + random.nextInt();
    try {
      descend(depth, text, new int[] {depth, 2}, new StringBuilder("under way"));
      throw new AssertionError("nothing was thrown");
    } catch (IllegalStateException e) {
      if (!text.equals(e.getMessage())) {
        throw new AssertionError("caught " + e + " instead of " + text);
      }
      thrown.incrementAndGet();
    }
  }

  private void descend(int depth, String text, int[] numbers, StringBuilder builder) {
    if (depth <= 1) {
      throw new IllegalStateException(text);
    }
    long local = depth * 2L;
    descend(depth - 1, text, numbers, builder);
    sum += (int) local;
  }

  private void overflow() {
    try {
      sum += endless(1);
    } catch (StackOverflowError e) {
      overflows.incrementAndGet();
    }
  }

  private int endless(int depth) {
    return endless(depth + 1) + depth;
  }

  private void exhaust() {
    try {
      sum += new long[Integer.MAX_VALUE - 8].length;
      throw new AssertionError("memory for 16 GiB");
    } catch (OutOfMemoryError e) {
      exhausted.incrementAndGet();
    }
  }

  @Override
  public String account() {
    return thrown + " exceptions, " + overflows + " overflows, " + exhausted + " out of memory";
  }
}
