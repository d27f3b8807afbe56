import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import java.time.Duration;
import java.util.HashMap;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** A contention profile that writes a report of a given name into the working directory. */
final class Profile {
  private static final Pattern LOCK =
      Pattern.compile(
          "\"class\": \"([^\"]*)\"[^{]*?\"kind\": \"([^\"]*)\"[^{]*?\"stillBlocked\": (\\d+)");

  private final ContentionSession session;

  private Profile(ContentionSession session) {
    this.session = session;
  }

  static Profile start(ContentionSettings settings) {
    return new Profile(NativeAgent.startContention(settings));
  }

  static ContentionSettings settings(String name) {
    return new ContentionSettings(Paths.get(name + ".json"));
  }

  /** As many looks as the agent can make, and what is stuck after a second. */
  static ContentionSettings closeLook(String name) {
    return settings(name).samples(500).budget(100).stuck(Duration.ofSeconds(1));
  }

  /** What a snapshot has. */
  String read() {
    try {
      return new String(Files.readAllBytes(session.snapshot()), StandardCharsets.UTF_8);
    } catch (IOException e) {
      throw new IllegalStateException(e);
    }
  }

  /** How many threads a kind of lock blocks, of the class that has most of them. */
  int mostBlockedOfAClass(String kind) {
    Map<String, Integer> blocked = new HashMap<>();
    for (Matcher lock = LOCK.matcher(read()); lock.find();) {
      if (lock.group(2).equals(kind)) {
        blocked.merge(lock.group(1), Integer.parseInt(lock.group(3)), Integer::sum);
      }
    }
    return blocked.values().stream().reduce(0, Integer::max);
  }

  /** Writes a snapshot that stays when the next one is written. */
  void keep(String name) throws IOException {
    Files.move(
        session.snapshot(), Paths.get(name + ".json"), StandardCopyOption.REPLACE_EXISTING);
  }

  Path stop() throws IOException {
    return session.stop();
  }
}
