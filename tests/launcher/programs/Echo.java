import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.Paths;

/**
 * Tells what it was started with: arguments, working directory, system property {@code mark} and
 * the lines of standard input, the last on standard error.
 *
 * <p>Usage: {@code Echo EXIT_CODE [ARGUMENT...]}
 */
public final class Echo {
  private Echo() {}

  public static void main(String[] args) throws IOException {
    for (int i = 1; i < args.length; i++) {
      System.out.println("argument " + args[i]);
    }
    System.out.println("folder " + Paths.get("").toAbsolutePath());
    System.out.println("mark " + System.getProperty("mark"));
    BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
    for (String line = in.readLine(); line != null; line = in.readLine()) {
      System.out.println("read " + line);
      System.err.println("last " + line);
    }
    System.exit(Integer.parseInt(args[0]));
  }
}
