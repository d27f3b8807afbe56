/** The agent of someone else, for -javaagent; and a program that says whether it was there. */
public final class OtherAgent {
  private OtherAgent() {}

  public static void premain(String options) {
    System.setProperty("other.agent", "with " + options);
  }

  public static void main(String[] args) {
    Facts.put("other", System.getProperty("other.agent"));
  }
}
