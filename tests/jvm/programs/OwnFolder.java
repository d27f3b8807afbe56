import java.nio.file.Files;
import java.nio.file.Paths;

/** Makes a folder, which it means to use later. Argument: its name. */
public final class OwnFolder {
  private OwnFolder() {}

  public static void main(String[] args) throws Exception {
    Files.createDirectory(Paths.get(args[0]));
  }
}
