/** A template: its names are replaced by ones that no Java compiler accepts. */
public final class OddlyNamed implements Runnable {
  private final String fieldName = "field value";

  @Override
  public void run() {
    methodName(7, "argument value");
  }

  void methodName(int variableName, String otherName) {
    String localName = otherName + Math.abs(variableName) + fieldName.length();
    throw new IllegalStateException(localName);
  }
}
