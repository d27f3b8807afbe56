import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.File;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;

/** The control calls in every order, at first with no session ever started, under contention. */
public final class AnyOrder {
  private static final String[] CALLS = {
      "start", "summary", "detail", "stopSummary", "stopDetail", "stop", "startMemory"};

  private final String report;
  private final String stacks;
  private final List<Set<Integer>> results = new ArrayList<>();

  private AnyOrder(String report, String stacks) {
    this.report = report;
    this.stacks = stacks;
    for (int i = 0; i < CALLS.length; i++) {
      results.add(new TreeSet<>());
    }
  }

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    AnyOrder calls = new AnyOrder(args[0], args[1]);
    Crowd crowd = new Crowd(2, 1);
    crowd.awaitProgress(2);
    for (int call : new int[] {5, 4, 3, 2, 1, 6, 1, 2, 3, 4, 5}) {
      calls.call(call);
      crowd.awaitProgress(1);
    }
    calls.tell("unstarted");
    Facts.put("unstarted.report", new File(args[0]).exists());

    // The call that opens a session comes once in each order, so that stop always has one after
    // the first round.
    calls.call(0);
    calls.permute(new int[] {0, 1, 2, 3, 4, 5}, 0);
    calls.call(6);
    calls.permute(new int[] {6, 0, 1, 2, 5}, 0);
    calls.tell("started");
    crowd.stop();
  }

  private void permute(int[] order, int from) {
    if (from == order.length) {
      for (int call : order) {
        call(call);
      }
      return;
    }
    for (int i = from; i < order.length; i++) {
      swap(order, from, i);
      permute(order, from + 1);
      swap(order, from, i);
    }
  }

  private static void swap(int[] order, int a, int b) {
    int kept = order[a];
    order[a] = order[b];
    order[b] = kept;
  }

  private void call(int call) {
    switch (call) {
      case 0:
        results.get(call).add(Agent.start(14, "any order", stacks));
        break;
      case 1:
        results.get(call).add(Agent.summary(14));
        break;
      case 2:
        results.get(call).add(Agent.detail(14));
        break;
      case 3:
        results.get(call).add(Agent.stopSummary(14));
        break;
      case 4:
        results.get(call).add(Agent.stopDetail(14));
        break;
      case 5:
        results.get(call).add(Agent.stop(14, report));
        break;
      default:
        Agent.startMemory(14);
        TWNativeAgentProfiling.setObjectTag(this);
        break;
    }
  }

  private void tell(String key) {
    for (int i = 0; i < CALLS.length; i++) {
      Facts.put(key + "." + CALLS[i], results.get(i));
      results.get(i).clear();
    }
  }
}
