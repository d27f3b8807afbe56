import java.util.ArrayList;
import java.util.Map;

/** Runs the one program of several that the arguments name. */
final class Programs {
  private static final int[] MEGABYTES_PER_SECOND = {10, 20, 30, 50};

  private Programs() {}

  /** Arguments: none, which prints the names, or name, seconds, and seed of the random numbers. */
  static void main(Map<String, Program> programs, String... args) throws Exception {
    if (args.length == 0) {
      programs.keySet().forEach(System.out::println);
      return;
    }
    int index = new ArrayList<>(programs.keySet()).indexOf(args[0]);
    int garbage = MEGABYTES_PER_SECOND[index % MEGABYTES_PER_SECOND.length] << 20;
    Load load = new Load(programs.get(args[0]), garbage);
    load.run(Long.parseLong(args[2]), Double.parseDouble(args[1]));
    System.exit(0); // pools and timers live on
  }
}
