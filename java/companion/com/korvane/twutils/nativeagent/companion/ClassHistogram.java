package com.korvane.twutils.nativeagent.companion;

import java.util.HashMap;
import java.util.Map;

/**
 * How many objects of each class are alive, and their bytes, as the VM has printed it. Classes of
 * one name count together, whatever their loaders. Immutable.
 */
final class ClassHistogram {
  static final int MOST_CLASSES = 20_000;

  /** Holes in the heap that some collectors fill. They belong to nobody. */
  private static final String FILLER = "jdk.internal.vm.Filler";

  /** The objects of a class. */
  static final class Size {
    long bytes;
    long objects;
  }

  final long bytes;
  final long objects;
  final int omitted; // lines of classes for which there was no room

  private final Map<String, Size> sizes;
  private final long smallest; // bytes of the class that was printed last before that

  private ClassHistogram(Parser parser) {
    bytes = parser.bytes;
    objects = parser.objects;
    omitted = parser.omitted;
    sizes = parser.sizes;
    smallest = parser.smallest;
  }

  /**
   * The VM prints the largest classes first: of more than {@link #MOST_CLASSES}, the others are
   * part of the sums only.
   *
   * @throws IllegalArgumentException when the text is not a histogram
   */
  static ClassHistogram parse(String text) {
    return parse(text, MOST_CLASSES);
  }

  static ClassHistogram parse(String text, int mostClasses) {
    Parser parser = new Parser(text, mostClasses);
    int begin = 0;
    while (begin < text.length()) {
      int end = text.indexOf('\n', begin);
      end = end < 0 ? text.length() : end;
      parser.addLine(begin, end);
      begin = end + 1;
    }
    if (parser.sizes.isEmpty()) {
      throw new IllegalArgumentException("the VM's class histogram has no classes");
    }
    return new ClassHistogram(parser);
  }

  /** Not to be changed. */
  Map<String, Size> sizes() {
    return sizes;
  }

  /** How many bytes a class may have had that is not here. */
  long mostUnknownBytes() {
    return omitted == 0 ? 0 : smallest;
  }

  /** Reads lines such as "  12:   3   72  [Ljava.lang.String; (java.base@17.0.1)". */
  private static final class Parser {
    private final String text;
    private final int mostClasses;
    private final Map<String, Size> sizes = new HashMap<>();
    private long bytes;
    private long objects;
    private long smallest;
    private int omitted;

    private int at;
    private int end;

    Parser(String text, int mostClasses) {
      this.text = text;
      this.mostClasses = mostClasses;
    }

    void addLine(int lineBegin, int lineEnd) {
      at = lineBegin;
      end = lineEnd;
      long rank = number();
      if (rank < 0 || at == end || text.charAt(at++) != ':') {
        return;
      }
      long count = number();
      long size = number();
      skipBlanks();
      String name = ClassNames.of(name());
      if (count >= 0 && size >= 0 && !name.isEmpty() && !name.startsWith(FILLER)) {
        add(name, count, size);
      }
    }

    private void add(String name, long count, long size) {
      objects += count;
      bytes += size;
      Size known = sizes.get(name);
      if (known == null) {
        if (sizes.size() == mostClasses) {
          omitted++;
          return;
        }
        known = new Size();
        sizes.put(name, known);
        smallest = size;
      }
      known.objects += count;
      known.bytes += size;
    }

    /** Up to the module, if there is one, and the end of the line. */
    private String name() {
      int nameEnd = text.indexOf(" (", at);
      nameEnd = nameEnd < 0 || nameEnd > end ? end : nameEnd;
      while (nameEnd > at && text.charAt(nameEnd - 1) <= ' ') {
        nameEnd--;
      }
      return text.substring(at, nameEnd);
    }

    private void skipBlanks() {
      while (at < end && text.charAt(at) <= ' ') {
        at++;
      }
    }

    /** What is next; -1 when it is not a number that fits. */
    private long number() {
      skipBlanks();
      long value = -1;
      while (at < end && text.charAt(at) >= '0' && text.charAt(at) <= '9') {
        if (value > Long.MAX_VALUE / 10 - 1) {
          return -1;
        }
        value = (value < 0 ? 0 : value * 10) + (text.charAt(at++) - '0');
      }
      return value;
    }
  }
}
