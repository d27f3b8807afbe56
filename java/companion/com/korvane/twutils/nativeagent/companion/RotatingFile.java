package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Iterator;
import java.util.SortedSet;
import java.util.TreeSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * A file of lines that starts over when it is full. The full one is renamed to
 * NAME-1.EXTENSION, the next one to NAME-2 and so on. The oldest are deleted when there are too
 * many.
 *
 * <p>For one thread. A line is written completely or not at all, and after a failure of any kind
 * the next one is tried again.
 */
class RotatingFile {
  private final Path folder;
  private final String name;
  private final String extension;
  private final long maxSize;
  private final int maxFiles;

  private RandomAccessFile file; // null when it has to be opened
  private long size; // of complete lines
  private boolean isCut; // what follows them is part of a line

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
  }

  /** The newest file. */
  Path path() {
    return folder.resolve(name + extension);
  }

  /** Adds one line, with its line end. */
  void write(byte[] line) throws IOException {
    if (isCut) {
      takeBack();
    }
    if (file == null || (size > 0 && size + line.length > maxSize)) {
      close();
      open();
    }
    isCut = true;
    append(file, line);
    size += line.length;
    isCut = false;
  }

  /** Cuts off what a failed write has left of a line. */
  void close() throws IOException {
    if (isCut) {
      takeBack();
    }
    if (file != null) {
      RandomAccessFile closing = file;
      file = null;
      closing.close();
    }
  }

  /** May write a part of the line, and then fails. */
  void append(RandomAccessFile to, byte[] line) throws IOException {
    to.write(line);
  }

  private void open() throws IOException {
    SortedSet<Integer> full = numbersInUse();
    if (Files.exists(path())) {
      int next = full.isEmpty() ? 1 : full.last() + 1;
      Files.move(path(), numbered(next));
      full.add(next);
    }
    for (Iterator<Integer> oldest = full.iterator(); full.size() >= maxFiles; ) {
      Files.deleteIfExists(numbered(oldest.next()));
      oldest.remove();
    }
    PrivateFiles.createFile(path());
    file = new RandomAccessFile(path().toFile(), "rw");
    size = 0;
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

  private Path numbered(int number) {
    return folder.resolve(name + '-' + number + extension);
  }

  private void takeBack() throws IOException {
    isCut = false;
    RandomAccessFile cut = file;
    file = null; // the next line reopens the file when this fails, and it counts as full
    if (cut == null) {
      return;
    }
    try {
      cut.setLength(size);
      cut.seek(size);
      file = cut;
    } finally {
      if (file == null) {
        cut.close();
      }
    }
  }
}
