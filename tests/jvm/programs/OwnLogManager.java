import java.util.logging.LogManager;

/** Chooses its log manager in main, as application servers do. */
public final class OwnLogManager {
  /** The one it chooses. */
  public static final class Chosen extends LogManager {}

  private OwnLogManager() {}

  public static void main(String[] args) {
    System.setProperty("java.util.logging.manager", Chosen.class.getName());
    Facts.put("manager", LogManager.getLogManager().getClass().getName());
  }
}
