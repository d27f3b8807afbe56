/** Has the classes of {@link ContentionTruth} in a cache that is made without an agent. */
public final class ContentionPlain {
  private ContentionPlain() {}

  public static void main(String[] args) throws Exception {
    for (String each : ContentionTruth.kinds(1).keySet()) {
      System.out.println(each);
    }
  }
}
