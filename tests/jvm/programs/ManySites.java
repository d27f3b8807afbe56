/** Throws in so many classes, each at a site of its own; they may be unloaded meanwhile. */
public final class ManySites {
  private ManySites() {}

  /** Arguments: how many classes, and how many rounds of them, each loaded anew. */
  public static void main(String[] args) throws ReflectiveOperationException {
    int classes = Integer.parseInt(args[0]);
    int rounds = Integer.parseInt(args[1]);
    int thrown = 0;
    for (int round = 0; round < rounds; round++) {
      for (int i = 0; i < classes; i++) {
        thrown += use(new ClassImage(OddlyNamed.class).named("many.C" + i));
      }
      System.gc();
    }
    Facts.put("thrown", thrown);
  }

  private static int use(ClassImage image) throws ReflectiveOperationException {
    Runnable instance = (Runnable) image.define().getDeclaredConstructor().newInstance();
    try {
      instance.run();
      return 0;
    } catch (IllegalStateException e) {
      return 1;
    }
  }
}
