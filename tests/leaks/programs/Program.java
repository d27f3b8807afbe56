import java.util.Random;

/** What a program does beside the load that all have in common. */
interface Program {
  /** Called once, before the load begins. */
  default void start() throws Exception {}

  /** Called on a thread of the load, for each request; does so much as 1000 requests/s allow. */
  void serve(Random random) throws Exception;
}
