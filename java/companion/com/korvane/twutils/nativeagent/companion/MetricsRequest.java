package com.korvane.twutils.nativeagent.companion;

import java.util.Locale;

/** A request for metrics, and what it is answered with: GET /metrics, and nothing else. */
final class MetricsRequest {
  static final int OK = 200;
  static final String PATH = "/metrics";

  private static final int MOST_HEADERS = 100;

  final int status;
  final boolean isOpen; // asks for OpenMetrics

  private MetricsRequest(int status, boolean isOpen) {
    this.status = status;
    this.isOpen = isOpen;
  }

  /**
   * @param head the request up to the empty line, in ISO 8859-1
   * @param token null when none is needed
   * @param isLocal the port is on a loopback address
   */
  static MetricsRequest parse(String head, MetricsToken token, boolean isLocal) {
    String[] lines = head.split("\r?\n");
    String[] words = lines[0].split(" ", -1);
    if (words.length != 3 || !words[2].startsWith("HTTP/1.") || lines.length > MOST_HEADERS) {
      return new MetricsRequest(400, false);
    }
    String host = null;
    String accept = "";
    String authorization = null;
    for (int i = 1; i < lines.length; i++) {
      int colon = lines[i].indexOf(':');
      if (colon <= 0) {
        return new MetricsRequest(400, false);
      }
      String name = lines[i].substring(0, colon).toLowerCase(Locale.ROOT);
      String value = lines[i].substring(colon + 1).trim();
      if (name.equals("host")) {
        host = value;
      } else if (name.equals("accept")) {
        accept += value;
      } else if (name.equals("authorization")) {
        authorization = value;
      }
    }
    // A page in a browser may have its own name lead to this address.
    if (token == null && isLocal && !isLocalName(host)) {
      return new MetricsRequest(403, false);
    }
    if (token != null && !token.isIn(authorization)) {
      return new MetricsRequest(401, false);
    }
    int query = words[1].indexOf('?');
    if (!(query < 0 ? words[1] : words[1].substring(0, query)).equals(PATH)) {
      return new MetricsRequest(404, false);
    }
    return words[0].equals("GET")
        ? new MetricsRequest(OK, accept.contains("application/openmetrics-text"))
        : new MetricsRequest(405, false);
  }

  private static boolean isLocalName(String host) {
    if (host == null) {
      return true; // no browser
    }
    int colon = host.lastIndexOf(':');
    String name = colon > host.lastIndexOf(']') ? host.substring(0, colon) : host;
    boolean isNumber = name.startsWith("127.");
    for (int i = 0; i < name.length(); i++) {
      isNumber = isNumber && (name.charAt(i) == '.' || Character.isDigit(name.charAt(i)));
    }
    return isNumber || name.equalsIgnoreCase("localhost") || name.equals("[::1]");
  }

  /** A request that is too long. */
  static MetricsRequest tooLong() {
    return new MetricsRequest(431, false);
  }

  /** What the status line says. */
  String reason() {
    switch (status) {
      case OK:
        return "200 OK";
      case 401:
        return "401 Unauthorized";
      case 403:
        return "403 Forbidden";
      case 404:
        return "404 Not Found";
      case 405:
        return "405 Method Not Allowed";
      case 431:
        return "431 Request Header Fields Too Large";
      default:
        return "400 Bad Request";
    }
  }
}
