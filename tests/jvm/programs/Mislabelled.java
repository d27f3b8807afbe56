/** A template: its copies say in their variable tables that the local is of another class. */
public final class Mislabelled implements Runnable {
  public static final class Label {
    public final int first = 0x41414141;
    public final int second = 0x42424242;
  }

  @Override
  public void run() {
    fail(new Label());
  }

  private void fail(Object given) {
    Label label = (Label) given;
    int sum = label.first + label.second;
    throw new IllegalStateException("sum " + sum);
  }
}
