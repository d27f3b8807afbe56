import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;
import payload.Payload;

/** Threads that tag objects of a class of their own while collections go on. */
public final class TaggingCrowd {
  private TaggingCrowd() {}

  /** Arguments: report, objects of each thread, collections meanwhile. */
  public static void main(String[] args) throws InterruptedException {
    int objects = Integer.parseInt(args[1]);
    int collections = Integer.parseInt(args[2]);
    AtomicInteger collected = new AtomicInteger();
    CountDownLatch ready = new CountDownLatch(Payload.GROUPS.size());
    List<Tags> kept = new ArrayList<>();
    List<Thread> threads = new ArrayList<>();
    Tags.start(36);
    Tags.collect();
    for (int i = 0; i < Payload.GROUPS.size(); i++) {
      int group = i;
      Tags tags = new Tags();
      kept.add(tags);
      Thread thread = new Thread(() -> {
        ready.countDown();
        Await.latch(ready);
        tags.keep(objects, Payload.GROUPS.get(group));
        while (collected.get() < collections) {
          tags.tagAgain();
        }
      });
      threads.add(thread);
      thread.start();
    }
    Await.latch(ready);
    for (int i = 0; i < collections; i++) {
      Tags.collect();
      collected.incrementAndGet();
    }
    for (Thread thread : threads) {
      thread.join();
    }
    Tags.collect();
    Facts.put("stop", Tags.stop(36, args[0]));
    Facts.put("kept", kept.stream().mapToInt(Tags::count).sum());
  }
}
