/** The natives of the agent that makes every call of a heap scan. */
final class LiteralMemory {
  private LiteralMemory() {}

  static native void setTag(Object object, long tag);

  static native void replaceTag(Object object, long tag);

  /**
   * Scans the generations from 1 on.
   *
   * @return processor nanoseconds of the heap walk, of all queries and of what is done for each
   *     object; the number of objects; nanoseconds that passed in the longest query
   */
  static native long[] scan(int generations);

  /**
   * Asks for the objects of all generations from 1 on in one query.
   *
   * @return processor nanoseconds of that call; -1 when the VM refused it
   */
  static native long query(int generations);

  /**
   * The processor time of all threads of this process, in nanoseconds.
   *
   * <p>The walk over the heap is done by a thread of the VM. On a busy machine this time says more
   * than the time that passes.
   */
  static native long processorNanos();
}
