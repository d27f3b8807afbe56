package com.korvane.twutils.nativeagent.companion;

import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;

/** Where metrics go: the value of the option. Either a file or host and port. */
final class MetricsTarget {
  private static final String LOOPBACK = "127.0.0.1";
  private static final String SUFFIX = ".prom"; // what a node exporter reads
  private static final String PROCESS = "%p";
  private static final int MOST_PORT = 65535;

  final Path file; // null for a port
  final boolean isOfProcess; // the file has the process id in its name
  final String host; // without brackets
  final int port; // 0 for one that is free

  private MetricsTarget(Path file, boolean isOfProcess, String host, int port) {
    this.file = file;
    this.isOfProcess = isOfProcess;
    this.host = host;
    this.port = port;
  }

  /** @throws IllegalArgumentException that names the value and what was expected */
  static MetricsTarget parse(String value, String pid) {
    if (value.endsWith(SUFFIX)) {
      try {
        Path file = Paths.get(value.replace(PROCESS, pid)).toAbsolutePath();
        return new MetricsTarget(file, value.contains(PROCESS), "", 0);
      } catch (InvalidPathException e) {
        throw refusal(value);
      }
    }
    int colon = value.lastIndexOf(':');
    String host = colon < 0 ? LOOPBACK : value.substring(0, colon);
    if (host.startsWith("[") && host.endsWith("]")) {
      host = host.substring(1, host.length() - 1);
    } else if (host.indexOf(':') >= 0) {
      throw refusal(value);
    }
    if (host.isEmpty() || host.indexOf('/') >= 0) {
      throw refusal(value);
    }
    return new MetricsTarget(null, false, host, portOf(value, value.substring(colon + 1)));
  }

  private static int portOf(String value, String digits) {
    int port = 0;
    for (int i = 0; i < digits.length(); i++) {
      char c = digits.charAt(i);
      if (c < '0' || c > '9' || port > MOST_PORT) {
        throw refusal(value);
      }
      port = port * 10 + (c - '0');
    }
    if (digits.isEmpty() || port > MOST_PORT) {
      throw refusal(value);
    }
    return port;
  }

  private static IllegalArgumentException refusal(String value) {
    return new IllegalArgumentException(
        "invalid option 'metrics=" + value + "': expected a port from 0 to 65535, such as 9464,"
            + " HOST:PORT or a file that ends in .prom");
  }

  /** The name of the file, which tells it from others in its folder. */
  String name() {
    String name = file.getFileName().toString();
    return name.substring(0, name.length() - SUFFIX.length());
  }
}
