package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.InetAddress;
import java.net.Proxy;
import java.net.URL;
import java.net.UnknownHostException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.security.GeneralSecurityException;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import javax.net.ssl.HttpsURLConnection;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLSocketFactory;

/**
 * The server that windows are sent to. Without proxies, and without following redirects: the token
 * goes to this server alone. What a program has set for all connections (factories, verifiers) does
 * not count. One thread posts; any may disconnect.
 */
final class PushTarget {
  /** What has become of a window. */
  enum Verdict {
    SENT,
    /** Another time may be better. */
    AGAIN,
    /** It would be refused again. */
    REFUSED
  }

  private static final int CONNECT_MILLIS = 10_000;
  private static final int READ_MILLIS = 20_000;
  private static final long MOST_NANOS = 30_000_000_000L; // of a post in all
  private static final int MOST_TOKEN = 8192; // characters
  private static final int MOST_ANSWER = 65_536; // bytes

  private final URL url;
  private final PushForm form;
  private final Map<String, String> labels = new LinkedHashMap<>();
  private final Path token; // null for none
  private SSLSocketFactory sockets; // of the sending thread
  private volatile HttpURLConnection current; // null for none
  private volatile long startedAt;
  private volatile String problem; // of the last post; null for none

  /** @throws IllegalArgumentException that names the option and what was expected */
  PushTarget(OptionReader options) {
    form = PushForm.valueOf(options.text(OptionKey.PUSH_FORM).toUpperCase(Locale.ROOT));
    String given = options.text(OptionKey.PUSH);
    for (String pair : options.list(OptionKey.PUSH_LABELS)) {
      int equals = pair.indexOf('=');
      labels.put(pair.substring(0, equals), pair.substring(equals + 1));
    }
    String file = options.text(OptionKey.PUSH_TOKEN);
    try {
      URL base = new URL(given);
      boolean hasPath = base.getPath().length() > 1;
      url = hasPath ? base : new URL(base, form.path);
      token = file.isEmpty() ? null : Paths.get(file);
    } catch (IOException | InvalidPathException e) {
      throw new IllegalArgumentException("invalid option 'push=" + given + "': " + e.getMessage());
    }
    if (token != null && !isPrivate()) {
      throw new IllegalArgumentException("invalid option 'push=" + given + "': expected https, or"
          + " a server on this machine, with pushToken");
    }
  }

  /** Whether nobody else can read what is sent. */
  private boolean isPrivate() {
    try {
      return url.getProtocol().equals("https")
          || InetAddress.getByName(url.getHost()).isLoopbackAddress();
    } catch (UnknownHostException e) {
      return false;
    }
  }

  @Override
  public String toString() {
    return url.toString();
  }

  /** Why the last post has failed; null when it has not. */
  String problem() {
    return problem;
  }

  Verdict post(PushWindow window, byte[] content) {
    int status = 0;
    try {
      status = answerTo(window, content);
      problem = status / 100 == 2 ? null : "the server answers " + status;
    } catch (IOException | GeneralSecurityException | RuntimeException e) {
      problem = Console.messageOf(e);
    } finally {
      current = null;
    }
    if (problem == null) {
      return Verdict.SENT;
    }
    return status == 400 || status == 413 || status == 415 || status == 422
        ? Verdict.REFUSED
        : Verdict.AGAIN;
  }

  private int answerTo(PushWindow window, byte[] content)
      throws IOException, GeneralSecurityException {
    byte[] body = form.body(window, content, labels);
    URL full = new URL(url, url.getPath() + form.query(window, labels));
    HttpURLConnection connection = (HttpURLConnection) full.openConnection(Proxy.NO_PROXY);
    if (connection instanceof HttpsURLConnection) {
      secure((HttpsURLConnection) connection);
    }
    connection.setInstanceFollowRedirects(false);
    connection.setUseCaches(false);
    connection.setAllowUserInteraction(false);
    connection.setConnectTimeout(CONNECT_MILLIS);
    connection.setReadTimeout(READ_MILLIS);
    connection.setRequestMethod("POST");
    connection.setDoOutput(true);
    connection.setFixedLengthStreamingMode(body.length); // so that Java does not send it twice
    connection.setRequestProperty("Content-Type", form.contentType);
    connection.setRequestProperty("User-Agent", "javanativeagent");
    if (token != null) {
      connection.setRequestProperty("Authorization", "Bearer " + readToken());
    }
    startedAt = System.nanoTime();
    current = connection;
    try (OutputStream out = connection.getOutputStream()) {
      out.write(body);
    }
    int status = connection.getResponseCode();
    if (!readAnswer(connection, status)) {
      connection.disconnect();
    }
    return status;
  }

  /** Only what the JVM itself trusts, and only under its name. */
  private void secure(HttpsURLConnection connection) throws GeneralSecurityException {
    if (sockets == null) {
      SSLContext context = SSLContext.getInstance("TLS");
      context.init(null, null, null);
      sockets = context.getSocketFactory();
    }
    connection.setSSLSocketFactory(sockets);
    connection.setHostnameVerifier((host, session) -> false); // asked for names that do not match
  }

  /** Whether it has come to its end, so that the connection can be used again. */
  private static boolean readAnswer(HttpURLConnection connection, int status) {
    byte[] some = new byte[4096];
    try (InputStream in =
        status < 400 ? connection.getInputStream() : connection.getErrorStream()) {
      int rest = MOST_ANSWER;
      int count = in == null ? -1 : in.read(some);
      while (count >= 0 && rest > 0) {
        rest -= count;
        count = in.read(some);
      }
      return count < 0;
    } catch (IOException e) {
      return false;
    }
  }

  /** What it is never appears in a message. */
  private String readToken() throws IOException {
    if (Files.size(token) > MOST_TOKEN) {
      throw new IOException("the token in " + token + " is longer than " + MOST_TOKEN);
    }
    String text = new String(Files.readAllBytes(token), StandardCharsets.ISO_8859_1).trim();
    boolean isToken = !text.isEmpty();
    for (int i = 0; i < text.length(); i++) {
      isToken &= text.charAt(i) > ' ' && text.charAt(i) < 127;
    }
    if (!isToken) {
      throw new IOException("expected one token in " + token + ", without blanks");
    }
    return text;
  }

  /** Ends a post that takes too long: writing has no time limit of its own in Java. */
  void expire() {
    if (System.nanoTime() - startedAt > MOST_NANOS) {
      disconnect();
    }
  }

  void disconnect() {
    HttpURLConnection connection = current;
    if (connection != null) {
      connection.disconnect();
    }
  }
}
