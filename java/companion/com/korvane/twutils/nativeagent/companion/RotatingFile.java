package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.SortedSet;
import java.util.TreeSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * A file of lines that begins anew when it is full: the full one goes on as NAME-1.EXTENSION, the
 * next as NAME-2 and so on, and the oldest are deleted when there are too many.
 *
 * <p>For one thread. A line is written as a whole or not at all, and after a failure the next one
 * is tried anew.
 */
final class RotatingFile {
  private final Path folder;
  private final String name;
  private final String extension;
  private final long maxSize;
  private final int maxFiles;

  private final Deque<Path> full = new ArrayDeque<>(); // the oldest first
  private int lastNumber;
  private RandomAccessFile file; // null when it has to be opened
  private long size;

  /**
   * @param fileName as in "exceptions.jsonl"; a file of this name that is there counts as full
   * @param maxSize in bytes; only a line that is longer makes a file larger
   * @param maxFiles with the newest one, 1 at least
   */
  RotatingFile(Path folder, String fileName, long maxSize, int maxFiles) {
    this.folder = folder;
    int dot = fileName.lastIndexOf('.');
    name = fileName.substring(0, dot);
    extension = fileName.substring(dot);
    this.maxSize = maxSize;
    this.maxFiles = maxFiles;
    for (int number : numbersInUse()) {
      full.add(numbered(number));
      lastNumber = number;
    }
  }

  private SortedSet<Integer> numbersInUse() {
    SortedSet<Integer> numbers = new TreeSet<>();
    Pattern numbered =
        Pattern.compile(Pattern.quote(name + '-') + "([0-9]{1,9})" + Pattern.quote(extension));
    String[] files = folder.toFile().list();
    for (String file : files == null ? new String[0] : files) {
      Matcher matcher = numbered.matcher(file);
      if (matcher.matches()) {
        numbers.add(Integer.parseInt(matcher.group(1)));
      }
    }
    return numbers;
  }

  /** The newest file. */
  Path path() {
    return folder.resolve(name + extension);
  }

  /** Adds one line, with its line end. */
  void write(byte[] line) throws IOException {
    if (file == null || (size > 0 && size + line.length > maxSize)) {
      close();
      open();
    }
    try {
      file.write(line);
      size += line.length;
    } catch (IOException e) {
      takeBack();
      throw e;
    }
  }

  void close() throws IOException {
    if (file != null) {
      RandomAccessFile closing = file;
      file = null;
      closing.close();
    }
  }

  private Path numbered(int number) {
    return folder.resolve(name + '-' + number + extension);
  }

  private void open() throws IOException {
    if (Files.exists(path())) {
      Path old = numbered(lastNumber + 1);
      Files.move(path(), old);
      lastNumber++;
      full.add(old);
    }
    while (full.size() >= maxFiles) {
      Files.deleteIfExists(full.remove());
    }
    PrivateFiles.createFile(path());
    file = new RandomAccessFile(path().toFile(), "rw");
    size = 0;
  }

  /** Cuts off what a failed write has left of a line. */
  private void takeBack() {
    try {
      file.setLength(size);
      file.seek(size);
    } catch (IOException e) {
      try {
        close();
      } catch (IOException ignored) {
        // The next line opens the file anew, and this one counts as full.
      }
    }
  }
}
