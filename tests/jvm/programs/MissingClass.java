/** Looks for a class that is not there. */
public final class MissingClass {
  private MissingClass() {}

  public static void main(String[] args) {
    try {
      Class.forName("no.such.Type");
    } catch (ClassNotFoundException e) {
      // As programs do that can do without.
    }
  }
}
