import java.io.IOException;
import java.lang.invoke.MethodHandle;
import java.lang.invoke.MethodHandles;
import java.lang.invoke.MethodType;
import java.lang.reflect.Proxy;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;
import java.util.function.IntUnaryOperator;
import java.util.function.Supplier;
import java.util.stream.IntStream;

/** Methods of every kind that throw. What they do with their variables keeps these alive. */
final class Throwers {
  static long used;

  private Throwers() {}

  /** Carries a number, so that each one thrown can be told from all others. */
  static final class Numbered extends RuntimeException {
    private static final long serialVersionUID = 1;

    final int number;

    Numbered(int number) {
      super("number " + number);
      this.number = number;
    }
  }

  static void use(Object... values) {
    used += values.length;
  }

  /** Knows nothing of where it was thrown. */
  static final class Bare extends RuntimeException {
    private static final long serialVersionUID = 1;

    Bare() {
      super("bare", null, false, false);
    }
  }

  // --- Values ---

  static void numbers(
      boolean yes, char letter, byte small, short medium, int whole, long wide, float thin,
      double fat) {
    boolean no = !yes;
    char next = (char) (letter + 1);
    long sum = wide - whole;
    double none = fat * Double.NaN;
    float most = thin / 0;
    use(no, next, sum, none, most, small, medium);
    throw new IllegalArgumentException("numbers");
  }

  static void texts(String given, StringBuilder built, StringBuffer buffer, String missing) {
    String cut = String.join("", java.util.Collections.nCopies(30, "0123456789"));
    String pair = cut.substring(0, 255) + "\ud83d\ude00";
    String odd = "a\u0000b\u00e9\ud83d\ude00\ud800";
    String separators = "a%2Cb%3A4%7C!%23";
    StringBuilder nobody = null;
    use(given, built, buffer, missing, cut, pair, odd, separators, nobody);
    throw new IllegalStateException("texts");
  }

  static void objects(Object plain, int[] numbers, String[][] table, Object nothing, List<?> list) {
    Object[] none = {};
    Node chain = new Node(1, new Node(2, new Node(3, new Node(4, null))));
    Node circle = new Node(5, null);
    circle.next = circle;
    use(plain, numbers, table, nothing, list, none, chain, circle);
    throw new IllegalStateException("objects");
  }

  static final class Node {
    final int id;
    Node next;

    Node(int id, Node next) {
      this.id = id;
      this.next = next;
    }
  }

  /** Fields of every type, static and not, and an inherited one. */
  static class Base {
    final int inherited = 77;
  }

  static final class Fields extends Base {
    static int count = 12;
    static String label = "shared";
    static Object object = new Node(9, null);
    boolean yes = true;
    char letter = 'x';
    byte small = -8;
    short medium = -16;
    int whole = 32;
    long wide = 64;
    float thin = 0.5f;
    double fat = 0.25;
    String text = "pen";
    String missing;
    StringBuilder builder = new StringBuilder("built");
    Node node = new Node(8, new Node(7, null));
    int[] array = {1, 2, 3};
    Object nothing;

    void fail(int argument) {
      int local = argument + 1;
      use(local);
      throw new UnsupportedOperationException("fields");
    }
  }

  static final class Keeper {
    final String kept;

    Keeper(String kept) {
      this.kept = kept;
    }
  }

  // --- Methods ---

  static synchronized void synchronizedMethod(int held) {
    throw new IllegalStateException("held " + held);
  }

  static void synchronizedBlock(Object monitor) {
    int inside = 5;
    synchronized (monitor) {
      use(inside);
      throw new IllegalStateException("inside");
    }
  }

  static void finallyBlock(int tried) {
    try {
      throw new IllegalStateException("tried " + tried);
    } finally {
      use("finally");
    }
  }

  static void caughtAndWrapped(int depth) {
    try {
      new Throwers.Fields().fail(depth);
    } catch (UnsupportedOperationException e) {
      throw new IllegalStateException("wrapped", e);
    }
  }

  static <T extends Comparable<T>> T generic(List<? extends T> from, T first) {
    T largest = first;
    use(from, largest);
    throw new IllegalArgumentException("generic");
  }

  static final class Bridged implements Comparable<Bridged> {
    @Override
    public int compareTo(Bridged other) {
      throw new IllegalArgumentException("bridged");
    }
  }

  static int varargs(String first, int... rest) {
    return rest[rest.length + first.length()];
  }

  interface Named {
    default void byDefault(String name) {
      throw new IllegalStateException(name);
    }

    static void atOnce(String name) {
      throw new IllegalStateException(name);
    }
  }

  enum Kind {
    PLAIN {
      @Override
      void act(int step) {
        throw new IllegalStateException("plain");
      }
    };

    abstract void act(int step);
  }

  static int recursive(int left) {
    if (left == 0) {
      throw new IllegalStateException("deep");
    }
    return 1 + recursive(left - 1);
  }

  static int endless(int depth) {
    return 1 + endless(depth + 1);
  }

  // --- Constructors ---

  static class Built {
    final int first;
    final String second;

    Built(int first) {
      this.first = first;
      second = "set";
      if (first > 0) {
        throw new IllegalArgumentException("built");
      }
    }
  }

  static final class BuiltBelow extends Built {
    final int third = 3;

    BuiltBelow(int first) {
      super(first);
    }
  }

  /** Throws while its own {@code this} is not initialised. */
  static final class BuiltTooEarly extends Built {
    int never = 4;

    BuiltTooEarly(int zero) {
      super(10 / zero);
    }
  }

  static final class Unloadable {
    static int value = initial(3);

    private static int initial(int given) {
      throw new IllegalStateException("static " + given);
    }
  }

  // --- Scopes ---

  static void outOfScope(int kept) {
    {
      int gone = kept + 1;
      use(gone);
    }
    throw new IllegalStateException("scope");
  }

  static void notYetInScope(int kept) {
    if (kept > 0) {
      throw new IllegalStateException("scope");
    }
    int later = kept + 1;
    use(later);
  }

  static void slotOfTheSameType(int kept) {
    {
      int first = kept + 1;
      use(first);
    }
    int second = kept + 2;
    use(second);
    throw new IllegalStateException("scope");
  }

  static void slotOfAnotherType(int kept) {
    {
      String text = "text" + kept;
      use(text);
    }
    {
      long wide = kept + 2L;
      use(wide);
    }
    double real = kept + 0.5;
    use(real);
    throw new IllegalStateException("scope");
  }

  static void slotOfAnObject(int kept) {
    {
      long wide = kept + 2L;
      use(wide);
    }
    String text = "text" + kept;
    use(text);
    throw new IllegalStateException("scope");
  }

  /** The VM looks for a null here. */
  static int implicitNull(Node node, int step) {
    return node.id + step;
  }

  static int divide(int number, int by) {
    int doubled = 2 * number;
    return doubled / by;
  }

  static int compiled(int number, String text) {
    int doubled = 2 * number;
    String longer = text + doubled;
    if (number < 0) {
      throw new IllegalStateException(longer);
    }
    return doubled + longer.length();
  }

  // --- Calls from elsewhere ---

  static Supplier<Integer> lambda(int captured) {
    return () -> {
      int local = captured + 1;
      use(local);
      throw new IllegalStateException("lambda");
    };
  }

  static int inStream() {
    return IntStream.rangeClosed(1, 9).map(n -> 100 / (n - 3)).sum();
  }

  static void inSort() {
    Comparator<String> comparator = (left, right) -> {
      throw new IllegalStateException(left + right);
    };
    Arrays.asList("b", "a").sort(comparator);
  }

  static int methodReference() {
    IntUnaryOperator recursive = Throwers::recursive;
    return recursive.applyAsInt(0);
  }

  static MethodHandle handle() throws ReflectiveOperationException {
    return MethodHandles.lookup()
        .findStatic(
            Throwers.class, "divide", MethodType.methodType(int.class, int.class, int.class));
  }

  static Supplier<?> proxy() {
    return (Supplier<?>) Proxy.newProxyInstance(
        Throwers.class.getClassLoader(),
        new Class<?>[] {Supplier.class},
        (self, method, arguments) -> {
          throw new IOException("proxy");
        });
  }

  /** Finds no class, and says so itself. */
  static final class Loader extends ClassLoader {
    Loader() {
      super(Throwers.class.getClassLoader());
    }

    @Override
    protected Class<?> findClass(String name) throws ClassNotFoundException {
      throw new ClassNotFoundException("none: " + name);
    }

    Class<?> define(byte[] image) {
      return defineClass(null, image, 0, image.length);
    }
  }

  static final class Unprintable {
    @Override
    public String toString() {
      throw new IllegalStateException("no text");
    }
  }
}
