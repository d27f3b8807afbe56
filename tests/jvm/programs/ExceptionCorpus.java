import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.ObjectInputStream;
import java.lang.invoke.MethodHandle;
import java.lang.invoke.MethodHandles;
import java.lang.invoke.MethodType;
import java.lang.reflect.InvocationTargetException;
import java.math.BigDecimal;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.Formatter;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.regex.Pattern;

/**
 * One throwing situation after the other, with everything captured. Facts of each: what it threw,
 * outermost first, and how often each of these was delivered; then the records.
 */
public final class ExceptionCorpus {
  private static final Map<String, Integer> NOTHING = Collections.emptyMap();

  private ExceptionCorpus() {}

  private interface Body {
    Object run() throws Throwable;
  }

  private interface Action {
    void run() throws Throwable;
  }

  public static void main(String[] args) {
    Facts.put("enable", Captured.everything());
    ofTheVm();
    ofTheLibrary();
    ofMethods();
    ofConstructors();
    ofScopes();
    ofReflection();
    ofClassLoading();
    ofNames();
    ofValues();
    ofThreads();
    ofMemory();
    ofCallbacks();
    filtered();
    Facts.put("disable", Captured.nothing());
    situation("disabled", () -> Throwers.divide(1, 0));
  }

  // --- Situations ---

  private static void ofTheVm() {
    situation("implicitNull", () -> Throwers.implicitNull(null, 3));
    situation("divide", () -> Throwers.divide(21, 0));
    situation("arrayIndex", () -> numbers(5)[5]);
    situation("negativeSize", () -> new int[Integer.parseInt("-1")]);
    situation("wrongCast", () -> (String) (Object) Integer.valueOf(3));
    situation("arrayStore", () -> ((Object[]) new String[1])[0] = 3);
    situation("unboxing", () -> {
      Map<String, Integer> empty = NOTHING;
      int value = empty.get("none");
      return value;
    });
    action("monitorNotHeld", () -> new Object().notify());
    action("throwNull", () -> {
      RuntimeException none = null;
      throw none;
    });
    action("arrayCopy", () -> System.arraycopy(new int[2], 0, new long[2], 0, 1));
    situation("compiled", () -> {
      for (int i = 0; i < 50_000; i++) {
        Throwers.used += Throwers.compiled(i, "warm");
      }
      return Throwers.compiled(-4, "hot");
    });
  }

  private static int[] numbers(int length) {
    return new int[length];
  }

  private static void ofTheLibrary() {
    situation("parseInt", () -> Integer.parseInt("x"));
    situation("listGet", () -> new ArrayList<>(Arrays.asList(1, 2)).get(7));
    situation("emptyIterator", () -> Collections.emptyList().iterator().next());
    action("modified", () -> {
      Map<String, Integer> map = new HashMap<>(Collections.singletonMap("a", 1));
      map.put("b", 2);
      for (String key : map.keySet()) {
        map.remove(key.equals("a") ? "b" : "a");
        map.put(key + key, 3);
      }
    });
    action("unmodifiable", () -> Collections.unmodifiableList(new ArrayList<>()).add(null));
    situation("optional", () -> Optional.empty().get());
    situation("decimal", () -> BigDecimal.ONE.divide(BigDecimal.valueOf(3)));
    situation("pattern", () -> Pattern.compile("(a"));
    situation("format", () -> {
      try (Formatter formatter = new Formatter()) {
        return formatter.format("%q", 1);
      }
    });
    situation("substring", () -> "pen".substring(4));
    situation("stream", () ->
        new ObjectInputStream(new ByteArrayInputStream(new byte[] {1, 2, 3, 4})));
    situation("future", () ->
        CompletableFuture.supplyAsync(() -> Throwers.divide(5, 0), Runnable::run).get());
    action("sleep", () -> {
      Thread.currentThread().interrupt();
      Thread.sleep(1);
    });
    situation("string", () -> String.valueOf(new Throwers.Unprintable()));
  }

  private static void ofMethods() {
    action("synchronizedMethod", () -> Throwers.synchronizedMethod(6));
    action("synchronizedBlock", () -> Throwers.synchronizedBlock(new Throwers.Keeper("kept")));
    action("finallyBlock", () -> Throwers.finallyBlock(6));
    action("wrapped", () -> Throwers.caughtAndWrapped(6));
    situation("generic", () -> Throwers.generic(Arrays.asList(1, 2), 1));
    situation("bridge", () -> {
      Comparable<Throwers.Bridged> bridged = new Throwers.Bridged();
      return bridged.compareTo(null);
    });
    situation("bridgeCast", () -> rawCompare(new Throwers.Bridged(), "no bridge"));
    situation("varargs", () -> Throwers.varargs("one", 1, 2, 3));
    action("defaultMethod", () -> new Throwers.Named() {}.byDefault("default"));
    action("staticInterfaceMethod", () -> Throwers.Named.atOnce("static"));
    action("enumConstant", () -> Throwers.Kind.PLAIN.act(3));
    situation("lambda", () -> Throwers.lambda(41).get());
    situation("inStream", () -> Throwers.inStream());
    action("inSort", Throwers::inSort);
    situation("methodReference", () -> Throwers.methodReference());
    situation("deep", () -> Throwers.recursive(150));
    action("suppressed", () -> {
      try (AutoCloseable closed = () -> {
        throw new IOException("close");
      }) {
        Throwers.use(closed);
        throw new IllegalStateException("body");
      }
    });
    action("sameTwice", () -> {
      RuntimeException one = new IllegalStateException("one");
      try {
        throw one;
      } catch (IllegalStateException e) {
        throw one;
      }
    });
    action("withoutStack", () -> {
      throw new Throwers.Bare();
    });
    action("innerClass", () -> {
      int captured = 17;
      new Object() {
        final int own = 18;

        void fail() {
          throw new IllegalStateException("inner " + captured + own);
        }
      }.fail();
    });
    action("assertion", () -> {
      throw new AssertionError("assertion");
    });
  }

  @SuppressWarnings({"rawtypes", "unchecked"})
  private static int rawCompare(Comparable left, Object right) {
    return left.compareTo(right);
  }

  private static void ofConstructors() {
    situation("constructor", () -> new Throwers.Built(2));
    situation("superConstructor", () -> new Throwers.BuiltBelow(2));
    situation("uninitialized", () -> new Throwers.BuiltTooEarly(0));
    situation("staticInitializer", () -> Throwers.Unloadable.value);
    situation("afterStaticInitializer", () -> Throwers.Unloadable.value);
  }

  private static void ofScopes() {
    action("outOfScope", () -> Throwers.outOfScope(10));
    action("notYetInScope", () -> Throwers.notYetInScope(10));
    action("slotOfTheSameType", () -> Throwers.slotOfTheSameType(10));
    action("slotOfAnotherType", () -> Throwers.slotOfAnotherType(10));
    action("slotOfAnObject", () -> Throwers.slotOfAnObject(10));
  }

  private static void ofReflection() {
    Class<?>[] numbers = {int.class, int.class};
    situation("reflection", () ->
        Throwers.class.getDeclaredMethod("divide", numbers).invoke(null, 1, 0));
    situation("reflectionArgument", () ->
        Throwers.class.getDeclaredMethod("divide", numbers).invoke(null, "one", 0));
    situation("reflectionOften", () -> {
      for (int i = 0; i < 40; i++) { // past the point where the library changes its way
        Throwers.class.getDeclaredMethod("divide", numbers).invoke(null, 1, 1);
      }
      return Throwers.class.getDeclaredMethod("divide", numbers).invoke(null, 1, 0);
    });
    situation("reflectionConstructor", () ->
        Throwers.Built.class.getDeclaredConstructor(int.class).newInstance(2));
    situation("handle", () -> (int) Throwers.handle().invokeExact(1, 0));
    situation("handleBound", () -> {
      MethodHandle bound = MethodHandles.insertArguments(Throwers.handle(), 1, 0);
      return bound.invoke(1);
    });
    situation("handleType", () -> (long) Throwers.handle().invokeExact("one"));
    situation("handleThrower", () ->
        MethodHandles.throwException(Object.class, IllegalStateException.class)
            .invoke(new IllegalStateException("handle")));
    situation("handleMissing", () ->
        MethodHandles.lookup()
            .findStatic(Throwers.class, "nowhere", MethodType.methodType(void.class)));
    situation("proxy", () -> Throwers.proxy().get());
  }

  private static void ofClassLoading() {
    situation("ownLoader", () -> new Throwers.Loader().loadClass("no.where.Found"));
    situation("forName", () -> Class.forName("no.where.Found"));
    situation("missingMethod", () ->
        run(new ClassImage(OddlyNamed.class).named("Unlinked").with("length", "breadth")));
    situation("missingClass", () ->
        run(new ClassImage(OddlyNamed.class).named("Unlinked")
            .with("java/lang/Math", "no/where/Math")));
    situation("notAClass", () -> new Throwers.Loader().define(new byte[] {1, 2, 3, 4}));
  }

  private static void ofNames() {
    ClassImage plain = new ClassImage(OddlyNamed.class);
    situation("plainNames", () -> run(plain));
    situation("linesOnly", () -> run(new ClassImage(OddlyNamed.class).withoutVariables()));
    situation("noDebug", () -> run(new ClassImage(OddlyNamed.class).withoutDebugInformation()));
    situation("oddNames", () ->
        run(new ClassImage(OddlyNamed.class)
            .named("odd.Cards and-\u00e9 'more'")
            .with("OddlyNamed.java", "Cards and more.kt")
            .with("methodName", "refuses a card, 5% of them")
            .with("fieldName", "field-name")
            .with("variableName", "variable name")
            .with("otherName", "other!")
            .with("localName", "$local 50%")));
    situation("hostileNames", () ->
        run(new ClassImage(OddlyNamed.class)
            .named("hostile.%7C%40%41%42")
            .with("methodName", "%3A(%2C)")
            .with("fieldName", "!%23%2C")
            .with("variableName", "%43%44")
            .with("otherName", "%3A7%3A")));
    situation("mislabelled", () ->
        run(new ClassImage(Mislabelled.class)
            .with("LMislabelled$Label;", "Ljava/lang/String;")));
  }

  private static Object run(ClassImage image) throws ReflectiveOperationException {
    ((Runnable) image.define().getDeclaredConstructor().newInstance()).run();
    return null;
  }

  private static void ofValues() {
    action("numbers", () ->
        Throwers.numbers(true, 'a', (byte) -128, (short) 32767, Integer.MIN_VALUE, Long.MAX_VALUE,
            1.5f, -Double.MAX_VALUE));
    action("texts", () ->
        Throwers.texts("given", new StringBuilder("built"), new StringBuffer("buffer"), null));
    action("objects", () ->
        Throwers.objects(new Object(), new int[4], new String[2][], null, Arrays.asList(1)));
    action("fields", () -> new Throwers.Fields().fail(3));
  }

  private static void ofThreads() {
    ThreadLocal<Throwers.Keeper> local = new ThreadLocal<>();
    ThreadLocal<Integer> number = new ThreadLocal<>();
    onThread("threadLocals", () -> {
      local.set(new Throwers.Keeper("for this thread"));
      number.set(4711);
      Throwers.divide(1, 0);
    });
    onThread("noThreadLocals", () -> Throwers.divide(1, 0));
  }

  private static void ofMemory() {
    situation("stackOverflow", () -> Throwers.endless(0));
    situation("tooLarge", () -> new long[Integer.MAX_VALUE]);
    situation("afterThem", () -> Throwers.divide(2, 0));
  }

  private static void ofCallbacks() {
    AtomicInteger given = new AtomicInteger();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      given.incrementAndGet();
      throw new IllegalStateException("sink");
    });
    situation("throwingSink", () -> Throwers.divide(3, 0));
    Facts.put("throwingSink.given", given.getAndSet(0));
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      given.incrementAndGet();
      Throwers.endless(0);
    });
    situation("overflowingSink", () -> Throwers.divide(3, 0));
    Facts.put("overflowingSink.given", given);
    Captured.everything();
    AtomicInteger caught = new AtomicInteger();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      for (int i = 0; i < 10; i++) {
        try {
          String.valueOf(new Throwers.Unprintable());
        } catch (IllegalStateException inner) {
          caught.incrementAndGet();
        }
      }
    });
    situation("nestedSink", () -> Throwers.divide(3, 0));
    Facts.put("nestedSink.caught", caught);
    Captured.everything();
    situation("afterSinks", () -> Throwers.divide(3, 0));
  }

  private static void filtered() {
    situation("ofClass", () -> String.class.cast((Object) 3));
    situation("ofTheAgent", () -> run(new ClassImage(OddlyNamed.class).named("com.korvane.twx.A")));
    situation("ofTheMaker", () ->
        run(new ClassImage(OddlyNamed.class).named("COM.Korvane.Commons.A")));
    situation("ofSun", () -> run(new ClassImage(OddlyNamed.class).named("Sun.A")));
    situation("framesOfComSun", () -> run(new ClassImage(OddlyNamed.class).named("com.sun.x.A")));
  }

  // --- Runs ---

  private static void action(String name, Action action) {
    situation(name, () -> {
      action.run();
      return null;
    });
  }

  private static void onThread(String name, Action action) {
    situation(name, () -> {
      Throwable[] thrown = new Throwable[1];
      Thread thread = new Thread(() -> {
        try {
          action.run();
        } catch (Throwable t) {
          thrown[0] = t;
        }
      });
      thread.start();
      thread.join();
      throw new InvocationTargetException(thrown[0]);
    });
  }

  private static void situation(String name, Body body) {
    Throwable outermost = null;
    Captured.take();
    try {
      body.run();
    } catch (Throwable t) {
      outermost = t;
    }
    List<Captured> delivered = Captured.take();
    List<Throwable> thrown = new ArrayList<>();
    for (Throwable t = outermost; t != null; t = t.getCause()) {
      thrown.add(t);
      thrown.addAll(Arrays.asList(t.getSuppressed()));
    }
    tell(name, thrown, delivered);
  }

  /** Where the exception was made, as a record writes it. */
  private static String origin(Throwable exception) {
    StackTraceElement[] trace = exception.getStackTrace();
    return trace.length == 0
        ? ""
        : trace[0].getClassName() + "." + trace[0].getMethodName() + "(" + trace[0].getFileName()
            + ":" + trace[0].getLineNumber() + ")";
  }

  private static void tell(String name, List<Throwable> thrown, List<Captured> delivered) {
    List<String> counts = new ArrayList<>();
    for (Throwable each : thrown) {
      int count = 0;
      for (Captured captured : delivered) {
        count += captured.exception == each ? 1 : 0;
      }
      counts.add(each.getClass().getSimpleName() + " " + count);
    }
    Facts.put(name, String.join(", ", counts));
    int record = 0;
    for (Captured captured : delivered) {
      if (thrown.stream().anyMatch(t -> t == captured.exception)) {
        String key = name + "." + record++;
        captured.tell(key);
        Facts.put(key + ".trace", origin(captured.exception));
        if (captured.thread != Thread.currentThread()) {
          captured.tellThreadLocals(key);
        }
      }
    }
  }
}
