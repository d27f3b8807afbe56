package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/** What holds an object, from the steps that the flight recorder gives. */
public final class RootPathTest {
  private static final String CLASS = "java.lang.Class";
  private static final List<String> STACK = Collections.singletonList("a.B.run(NA:1)");

  private RootPathTest() {}

  public static void main(String[] args) {
    staticFields();
    threadLocals();
    otherRoots();
    nodesOfOneStructure();
    oneLoader();
    leakedLoaders();
    loadersThatStay();
    ownThings();
    longPaths();
    pathsThatAreAlike();
    bounds();
    Checks.end();
  }

  private static RootPath path(String className) {
    return new RootPath(className, 100L, 5000, STACK);
  }

  private static RootPath field(RootPath path, String className, String name) {
    path.add(new RootPath.Step(className, name, false, null, 0), null, 1);
    return path;
  }

  private static RootPath element(RootPath path, int index) {
    path.add(new RootPath.Step("java.lang.Object[]", null, false, index, 0), null, 1);
    return path;
  }

  private static RootPath staticField(RootPath path, String holder, String name) {
    path.add(new RootPath.Step(CLASS, name, true, null, 0), holder, 1);
    return path;
  }

  private static RootPath root(RootPath path) {
    path.endAtRoot("Threads", "Stack Variable", "main");
    return path;
  }

  private static String json(RootPath... paths) {
    RootPathGroups groups = new RootPathGroups();
    for (RootPath path : paths) {
      groups.add(path);
    }
    return json(groups);
  }

  private static String json(RootPathGroups groups) {
    JsonText json = new JsonText().beginObject();
    groups.write(json);
    return json.endObject().toString();
  }

  private static String step(String className, String field, Object index, int skipped) {
    String quoted = field == null ? null : '"' + field + '"';
    return "{\"class\":\"" + className + "\",\"field\":" + quoted
        + ",\"index\":" + index + ",\"skipped\":" + skipped + "}";
  }

  private static String rootJson(String kind, String text, String thread) {
    return "\"root\":{\"kind\":\"" + kind + "\",\"text\":\"" + text + "\",\"thread\":"
        + (thread == null ? null : '"' + thread + '"') + "}";
  }

  private static void staticFields() {
    RootPath path = element(path("byte[]"), 7);
    field(path, "java.util.ArrayList", "elementData");
    staticField(path, "a.Shop", "ITEMS");
    element(path, 3); // whatever holds the class
    String text = json(root(path));
    Checks.contains("path",
        "{\"samples\":1,\"withRoot\":1,\"own\":0,\"paths\":[{\"class\":\"byte[]\","
            + "\"samples\":1,\"bytes\":100,\"chain\":["
            + step("java.lang.Object[]", null, 7, 0) + ','
        + step("java.util.ArrayList", "elementData", null, 0) + ','
        + step("a.Shop", "ITEMS", null, 0) + "],", text);
    Checks.contains("root", rootJson("static field", "a.Shop.ITEMS", null)
        + ",\"stack\":[\"a.B.run(NA:1)\"],\"allocatedAt\":5000}],\"otherPaths\":0}", text);
  }

  private static void threadLocals() {
    for (String holder : new String[] {"threadLocals", "terminatingThreadLocals"}) {
      RootPath path = field(path("a.B"), "java.lang.ThreadLocal$ThreadLocalMap$Entry", "value");
      path.add(
          new RootPath.Step("java.lang.ThreadLocal$ThreadLocalMap$Entry[]", null, false, 2, 0),
          null, 1);
      field(path, "java.lang.ThreadLocal$ThreadLocalMap", "table");
      path.add(new RootPath.Step("a.MyThread", holder, false, null, 0), "worker", 1);
      element(path, 1); // what holds the thread
      String text = json(root(path));
      Checks.contains("thread local", rootJson("thread local", "a.B", "worker"), text);
      Checks.contains("its end", step("a.MyThread", holder, null, 0) + "]", text);
    }
  }

  private static void otherRoots() {
    String[][] rows = {
        {"Threads", "Stack Variable", "thread stack", "java.util.ArrayList"},
        {"Threads", "Local JNI Handle", "thread stack", "java.util.ArrayList"},
        {"Global JNI Handles", "Global JNI Handle", "JNI global", "java.util.ArrayList"},
        {"Class Loader Data", "Undetermined", "class loader", "java.util.ArrayList"},
        {"Universe", "Undetermined", "other", "Universe, Undetermined: java.util.ArrayList"},
    };
    for (String[] row : rows) {
      RootPath path = field(path("a.B"), "java.util.ArrayList", "elementData");
      path.endAtRoot(row[0], row[1], "main");
      Checks.contains(row[1], rootJson(row[2], row[3], "main"), json(path));
    }
    Checks.contains("nothing between", "\"chain\":[]," + rootJson("thread stack", "a.B", "main"),
        json(root(path("a.B"))));
  }

  private static void nodesOfOneStructure() {
    String node = "java.util.HashMap$Node";
    RootPath first = field(field(field(path("a.B"), node, "value"), node, "next"), node, "next");
    RootPath second = field(path("a.B"), node, "value");
    String text = json(
        root(staticField(second, "a.Shop", "MAP")), root(staticField(first, "a.Shop", "MAP")));
    Checks.contains("one path",
        "\"samples\":2,\"bytes\":200,\"chain\":[" + step(node, "value", null, 2) + ',', text);

    RootPath arrays = element(element(path("a.B"), 4), 5);
    Checks.contains("arrays of arrays stay", "[" + step("java.lang.Object[]", null, 4, 0) + ','
        + step("java.lang.Object[]", null, 5, 0) + "]", json(root(arrays)));
  }

  // --- Class loaders ---

  private static RootPath inPlugin(long loader, String loaderClass) {
    RootPath path = staticField(path("byte[]"), "a.Plugin", "DATA");
    element(path, 0);
    field(path, "java.util.ArrayList", "elementData");
    path.add(new RootPath.Step(loaderClass, "classes", false, null, 0), null, loader);
    element(path, (int) loader);
    staticField(path, "a.Plugins", "LOADERS");
    return root(path);
  }

  private static void oneLoader() {
    String text = json(inPlugin(1, "a.Loader"), inPlugin(1, "a.Loader"));
    Checks.contains("the field", "\"samples\":2,\"bytes\":200,\"chain\":["
        + step("a.Plugin", "DATA", null, 0) + "],"
        + rootJson("static field", "a.Plugin.DATA", null), text);
  }

  private static void leakedLoaders() {
    String text = json(inPlugin(1, "a.Loader"), inPlugin(2, "a.Loader"));
    Checks.contains("the loader",
        rootJson("class loader", "a.Loader (held by static field a.Plugins.LOADERS)", null), text);
    Checks.contains("the path", step("a.Loader", "classes", null, 0) + ','
        + step("java.lang.Object[]", null, null, 0) + ','
        + step("a.Plugins", "LOADERS", null, 0) + "]", text);
    Checks.contains("one", "\"samples\":2,", text.substring(text.indexOf("byte[]")));
  }

  private static void loadersThatStay() {
    String loader = "jdk.internal.loader.ClassLoaders$AppClassLoader";
    Checks.contains("the field", rootJson("static field", "a.Plugin.DATA", null),
        json(inPlugin(1, loader), inPlugin(2, loader)));
  }

  // --- What is not the program's ---

  private static void ownThings() {
    String own = "com.korvane.twutils.nativeagent.companion.";
    RootPath thread = path("a.B");
    thread.endAtRoot("Threads", "Stack Variable", "javanativeagent control");
    RootPath made = new RootPath("a.B", 1L, 1,
        Arrays.asList("java.lang.Object.clone(NA:-1)", own + "Growth.last(NA:1)"));
    String text = json(
        root(staticField(path("a.B"), own + "Console", "out")),
        root(staticField(path("a.B"), "jdk.jfr.internal.Type", "all")),
        root(path(own + "JsonText")), root(made), thread,
        root(field(path("a.B"), own + "ExceptionQueue$Node", "item")));
    same("own", "{\"samples\":6,\"withRoot\":6,\"own\":6,\"paths\":[],\"otherPaths\":0}", text);

    RootPath theirs = staticField(path("a.B"), "a.Shop", "ITEMS");
    field(theirs, own + "Companion", "classes"); // beyond what holds it
    Checks.contains("theirs", "\"own\":0", json(root(theirs)));
  }

  // --- Bounds ---

  private static void longPaths() {
    RootPath path = path("a.B");
    for (int i = 0; i < 500 && !path.isFull(); i++) {
      field(path, "a.Class" + i, "next");
    }
    String text = json(root(path));
    same("steps", 60, text.split("\"field\":").length - 1);
    Checks.contains("first ones", step("a.Class39", "next", null, 0) + ','
        + step("a.Class480", "next", null, 440) + ',', text);
    Checks.contains("last one", step("a.Class499", "next", null, 0) + "]", text);
    RootPath endless = path("a.B");
    int steps = 0;
    for (; steps < 100_000 && !endless.isFull(); steps++) {
      element(endless, 1);
    }
    same("no more are read", 2000, steps);
  }

  private static RootPath held(String field, int index, String thread, List<String> stack) {
    RootPath path = element(new RootPath("a.B", 8L, index, stack), index);
    field(path, "a.C", field);
    path.endAtRoot("Threads", "Stack Variable", thread);
    return path;
  }

  private static void pathsThatAreAlike() {
    List<String> other = Collections.singletonList("a.B.other(NA:2)");
    String text = json(held("rare", 9, "x", STACK), held("x", 5, "one", STACK),
        held("x", 4, "two", other), held("x", 4, "two", other));
    Checks.contains("most first", "\"paths\":[{\"class\":\"a.B\",\"samples\":3,\"bytes\":24,"
        + "\"chain\":[" + step("java.lang.Object[]", null, null, 0), text);
    Checks.contains("thread, stack, time", "\"thread\":null},\"stack\":[\"a.B.other(NA:2)\"],"
        + "\"allocatedAt\":4}", text);
    Checks.contains("the other one", "\"samples\":1,\"bytes\":8,\"chain\":["
        + step("java.lang.Object[]", null, 9, 0), text);
    RootPath unknown = new RootPath("a.B", null, 1, STACK);
    Checks.contains("no sizes", "\"bytes\":null", json(root(unknown)));
  }

  private static void bounds() {
    RootPathGroups groups = new RootPathGroups();
    for (int i = 0; i < 2500; i++) {
      groups.add(root(staticField(path("a.B"), "a.Shop", "F" + i)));
    }
    groups.addWithoutRoot();
    String text = json(groups);
    Checks.contains("counts", "{\"samples\":2501,\"withRoot\":2500,\"own\":0,", text);
    same("paths", 100, text.split("\"chain\":").length - 1);
    Checks.contains("others", "\"otherPaths\":2400}", text);
  }
}
