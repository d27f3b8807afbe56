import java.util.Random;
import java.util.function.BooleanSupplier;

/** One kind of load. Several threads are in it at once, each with its own random numbers. */
interface Storm {
  /** How many threads it takes. */
  int threads();

  /** Rages until told to end; an Error or a RuntimeException that comes out is a failure. */
  void rage(Random random, BooleanSupplier goesOn) throws Exception;

  /** After all threads are back: fails when something was lost or done twice. */
  default void verify() {}

  /** What it did, in a few words. */
  String account();
}
