import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.File;
import java.util.concurrent.CountDownLatch;

/** Contention below stacks of a known number of frames. */
public final class DeepStacks {
  private DeepStacks() {}

  /** Arguments: budget of stack traces, report, stack file, then the frames of each stack. */
  public static void main(String[] args) {
    Object lock = new Object();
    Facts.put("lock", Facts.lockName(lock));
    TWNativeAgentProfiling.startMutexLockProfilingSession(
        19, "deep", 60, 10, 1000, 100, 100, Integer.parseInt(args[0]), 100, args[2]);
    Agent.summary(19);
    Round.run(lock, "owner", "early");
    Agent.detail(19);
    for (int i = 3; i < args.length; i++) {
      Entrant owner = Entrant.inside("owner", lock);
      Deep deep = new Deep(lock, Integer.parseInt(args[i]));
      deep.start();
      Await.queued(deep);
      owner.leave();
      Await.latch(deep.done);
      Facts.put("file.after." + args[i], new File(args[2]).exists());
    }
    Agent.stopDetail(19);
    Agent.stop(19, args[1]);
  }

  /** Enters the monitor with exactly so many frames on its stack. */
  private static final class Deep extends Thread {
    final CountDownLatch done = new CountDownLatch(1);
    private final Object lock;
    private final int frames;

    Deep(Object lock, int frames) {
      super("deep-" + frames);
      this.lock = lock;
      this.frames = frames;
      setDaemon(true);
    }

    @Override
    public void run() {
      down(frames - 3);
      done.countDown();
    }

    private void down(int left) {
      if (left == 0) {
        enter();
      } else {
        down(left - 1);
      }
    }

    private void enter() {
      synchronized (lock) {
        done.getCount();
      }
    }
  }
}
