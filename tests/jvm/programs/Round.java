import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * Contention of which everything is known: one owner inside, every contender in the queue, and only
 * then does the owner leave. Each contender is one contended entry that finds the owner.
 */
final class Round {
  private Round() {}

  /** A time that was measured from outside: no less than {@code low}, no more than {@code high}. */
  static final class Span {
    long low;
    long high;

    void add(long lowNanos, long highNanos) {
      low += lowNanos;
      high += highNanos;
    }

    void tell(String key) {
      Facts.put(key + ".low", low);
      Facts.put(key + ".high", high);
    }
  }

  /** The times that threads were blocked, by thread name. */
  static final class Clock {
    private final Map<String, Span> spans = new TreeMap<>();

    Span of(String name) {
      return spans.computeIfAbsent(name, n -> new Span());
    }

    Span total() {
      Span total = new Span();
      spans.values().forEach(s -> total.add(s.low, s.high));
      return total;
    }

    void tell(String key) {
      spans.forEach((name, span) -> span.tell(key + "." + name));
      total().tell(key);
    }
  }

  static Clock run(Object lock, String owner, String... contenders) {
    return run(new Clock(), lock, 0, owner, contenders);
  }

  /** The owner leaves {@code holdNanos} after the last contender was in the queue. */
  static Clock run(Clock clock, Object lock, long holdNanos, String owner, String... contenders) {
    Entrant holder = Entrant.inside(owner, lock);
    List<Entrant> queue = new ArrayList<>();
    List<Long> queuedAt = new ArrayList<>();
    for (String contender : contenders) {
      Entrant entrant = Entrant.queued(contender, lock);
      queuedAt.add(System.nanoTime());
      entrant.letGo();
      queue.add(entrant);
    }
    Await.untilNanos(System.nanoTime() + holdNanos);
    long leftAt = System.nanoTime();
    holder.leave();
    for (int i = 0; i < queue.size(); i++) {
      Entrant entrant = queue.get(i);
      entrant.leave();
      clock.of(contenders[i])
          .add(leftAt - queuedAt.get(i), entrant.enteredAt() - entrant.askedAt());
    }
    return clock;
  }
}
