package com.korvane.twutils.nativeagent.companion;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Windows that wait to be sent, in the order in which they were made: the last ones in memory,
 * those before them on disk. The oldest make room. Any thread; what is on disk stays there when the
 * JVM ends.
 */
final class PushRing {
  static final int MOST_IN_MEMORY = 4 << 20; // bytes
  static final int MOST_WINDOWS = 1000;

  private final Path folder;
  private final long mostOnDisk;
  private final ReentrantLock lock = new ReentrantLock();
  private final ArrayDeque<PushWindow> windows = new ArrayDeque<>();
  private int made;
  private long inMemory; // bytes
  private long onDisk;
  private long sent;
  private long dropped;
  private long refused;
  private boolean hasFailed; // to write

  /** @param folder is made when there is something to write */
  PushRing(Path folder, long mostOnDisk) {
    this.folder = folder;
    this.mostOnDisk = mostOnDisk;
  }

  void put(PushWindow window) {
    boolean isFirstDrop;
    lock.lock();
    try {
      long before = dropped;
      windows.addLast(window);
      made++;
      inMemory += window.size;
      spill(MOST_IN_MEMORY);
      isFirstDrop = before == 0 && dropped > 0;
    } finally {
      lock.unlock();
    }
    if (isFirstDrop) {
      Console.note("push: the oldest windows are dropped: more wait to be sent than there is room"
          + " for (pushDisk)");
    }
  }

  /** The oldest; null when there is none. */
  PushWindow first() {
    lock.lock();
    try {
      return windows.peekFirst();
    } finally {
      lock.unlock();
    }
  }

  /** What a window has; null when it is gone. */
  byte[] contentOf(PushWindow window) {
    lock.lock();
    try {
      if (window.content != null || !windows.contains(window)) {
        return window.content;
      }
      return Files.readAllBytes(window.file);
    } catch (IOException e) {
      drop(window);
      return null;
    } finally {
      lock.unlock();
    }
  }

  /** The server has it. It may have been dropped meanwhile. */
  void sent(PushWindow window) {
    lock.lock();
    try {
      dropped -= remove(window) ? 0 : 1;
      sent++;
    } finally {
      lock.unlock();
    }
  }

  /** The server will never take it. */
  void refused(PushWindow window) {
    lock.lock();
    try {
      dropped -= remove(window) ? 0 : 1;
      refused++;
    } finally {
      lock.unlock();
    }
  }

  /** For the end of the JVM: all that waits is on disk afterwards. */
  void writeAll() {
    lock.lock();
    try {
      spill(0);
    } finally {
      lock.unlock();
    }
  }

  /** Windows that were sent, wait, were dropped for lack of room, and were refused. */
  long[] counts() {
    lock.lock();
    try {
      return new long[] {sent, windows.size(), dropped, refused};
    } finally {
      lock.unlock();
    }
  }

  Path folder() {
    return folder;
  }

  /** Writes the oldest that are in memory, until there are as few bytes as may be; on disk, too. */
  private void spill(long most) {
    writeOldest(most);
    while (onDisk > mostOnDisk || windows.size() > MOST_WINDOWS) {
      drop(windows.peekFirst());
    }
  }

  private void writeOldest(long most) {
    int number = made - windows.size();
    for (PushWindow each : windows.toArray(new PushWindow[0])) {
      number++;
      if (inMemory <= most) {
        return;
      }
      if (each.content == null) {
        continue;
      }
      try {
        write(each, number);
      } catch (IOException e) {
        if (!hasFailed) {
          hasFailed = true;
          Console.print("push: windows cannot be kept in " + folder + ": ", e);
        }
        drop(each);
      }
    }
  }

  private void write(PushWindow window, int number) throws IOException {
    if (!Files.isDirectory(folder)) {
      PrivateFiles.createFolder(folder);
    }
    Path file = folder.resolve("window-" + number + '-' + window.kind + ".pb.gz");
    PrivateFiles.createFile(file);
    try (OutputStream out = new FileOutputStream(file.toFile())) {
      out.write(window.content);
    } catch (IOException e) {
      Files.deleteIfExists(file);
      throw e;
    }
    window.file = file;
    window.content = null;
    inMemory -= window.size;
    onDisk += window.size;
  }

  private void drop(PushWindow window) {
    if (remove(window)) {
      dropped++;
    }
  }

  private boolean remove(PushWindow window) {
    if (!windows.remove(window)) {
      return false;
    }
    if (window.file == null) {
      inMemory -= window.size;
    } else {
      onDisk -= window.size;
      try {
        Files.deleteIfExists(window.file);
      } catch (IOException e) {
        // It stays, and counts no more: its folder is of this JVM alone.
      }
    }
    return true;
  }
}
