package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentMetrics;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * Answers requests for metrics, on one thread of the companion's own that never waits for a client:
 * connections are few, and each has a time to its end. The JDK's own server is of no use here. Its
 * limits are settings of the whole JVM, and its threads would be in the profiles. It also has the
 * JVM choose its log manager, which is the program's choice.
 */
final class MetricsServer {
  static final int MOST_CONNECTIONS = 16;
  static final int LONGEST_REQUEST = 8192; // bytes

  private static final long NANOS_OF_CONNECTION = TimeUnit.SECONDS.toNanos(5);
  private static final long NANOS_OF_PAGE = TimeUnit.MILLISECONDS.toNanos(200);
  private static final long SELECT_MILLIS = 1000;
  private static final int BACKLOG = 16;

  private final MetricsPage page;
  private final MetricsToken token; // null when none is needed
  private final boolean isLocal;
  private final ServerSocketChannel server;
  private final Selector selector;
  private final AgentThread thread = AgentThread.repeating("metrics", this::round);
  private final ByteBuffer input = ByteBuffer.allocate(LONGEST_REQUEST);
  private volatile boolean isClosed;

  // The thread's own.
  private final byte[][] pages = new byte[2][]; // the last one of each format
  private final long[] pagesAt = new long[2];
  private long spent; // processor time of this thread

  /** One client. */
  private static final class Connection {
    final long end = System.nanoTime() + NANOS_OF_CONNECTION;
    final StringBuilder head = new StringBuilder();
    ByteBuffer answer; // null before there is one
  }

  private MetricsServer(
      MetricsPage page, MetricsToken token, boolean isLocal, ServerSocketChannel server,
      Selector selector) {
    this.page = page;
    this.token = token;
    this.isLocal = isLocal;
    this.server = server;
    this.selector = selector;
  }

  /**
   * Listens; nothing is answered before {@link #start}.
   *
   * @param port 0 for one that is free
   * @throws IllegalArgumentException when the address needs a token and there is none
   * @throws IOException when the address cannot be had
   */
  static MetricsServer open(MetricsPage page, String host, int port, MetricsToken token)
      throws IOException {
    InetAddress address = InetAddress.getByName(host);
    boolean isLocal = address.isLoopbackAddress();
    if (!isLocal && token == null) {
      throw new IllegalArgumentException(
          "invalid option 'metrics=" + host + ':' + port + "': expected a loopback address, or"
              + " the option metricsToken with a file, whose token each request must carry");
    }
    ServerSocketChannel server = ServerSocketChannel.open();
    Selector selector = null;
    try {
      server.bind(new InetSocketAddress(address, port), BACKLOG);
      server.configureBlocking(false);
      selector = Selector.open();
      server.register(selector, SelectionKey.OP_ACCEPT);
      return new MetricsServer(page, token, isLocal, server, selector);
    } catch (IOException | RuntimeException e) {
      server.close();
      if (selector != null) {
        selector.close();
      }
      throw e;
    }
  }

  void start() {
    thread.start();
  }

  /** As in "http://127.0.0.1:9464/metrics". */
  String url() throws IOException {
    InetSocketAddress address = (InetSocketAddress) server.getLocalAddress();
    String host = address.getAddress().getHostAddress();
    boolean isLong = host.indexOf(':') >= 0;
    return "http://" + (isLong ? '[' + host + ']' : host) + ':' + address.getPort()
        + MetricsRequest.PATH;
  }

  /** No client is answered any more, soon. */
  void close() {
    isClosed = true;
    selector.wakeup();
  }

  private boolean round() {
    try {
      if (isClosed) {
        closeAll();
        return false;
      }
      selector.select(SELECT_MILLIS);
      for (SelectionKey key : selector.selectedKeys()) {
        serve(key);
      }
      selector.selectedKeys().clear();
      closeLate();
    } catch (IOException e) {
      AgentThread.pause(); // as when there are no more files; clients come again
    }
    long now = AgentMetrics.threadNanos();
    page.cost(now - spent);
    spent = now;
    return true;
  }

  private void serve(SelectionKey key) throws IOException {
    if (!key.isValid()) {
      return;
    }
    if (key.isAcceptable()) {
      accept();
      return;
    }
    try {
      Connection connection = (Connection) key.attachment();
      SocketChannel channel = (SocketChannel) key.channel();
      if (connection.answer == null && !read(channel, connection)) {
        close(key);
      } else if (connection.answer != null) {
        channel.write(connection.answer);
        key.interestOps(SelectionKey.OP_WRITE);
        if (!connection.answer.hasRemaining()) {
          close(key);
        }
      }
    } catch (IOException | RuntimeException e) {
      close(key); // the client has gone
    }
  }

  private void accept() throws IOException {
    SocketChannel channel = server.accept();
    if (channel == null) {
      return;
    }
    if (selector.keys().size() > MOST_CONNECTIONS) { // with that of the server
      channel.close();
      return;
    }
    channel.configureBlocking(false);
    channel.register(selector, SelectionKey.OP_READ, new Connection());
  }

  /** Returns whether more may come, or there is an answer. */
  private boolean read(SocketChannel channel, Connection connection) throws IOException {
    input.clear();
    int count = channel.read(input);
    if (count < 0) {
      return false;
    }
    connection.head.append(new String(input.array(), 0, count, StandardCharsets.ISO_8859_1));
    int end = connection.head.indexOf("\r\n\r\n");
    if (end >= 0 && end <= LONGEST_REQUEST) {
      String head = connection.head.substring(0, end);
      connection.answer = answerTo(MetricsRequest.parse(head, token, isLocal));
    } else if (connection.head.length() > LONGEST_REQUEST) {
      connection.answer = answerTo(MetricsRequest.tooLong());
    }
    return true;
  }

  private ByteBuffer answerTo(MetricsRequest request) {
    boolean isOk = request.status == MetricsRequest.OK;
    byte[] body = isOk
        ? pageOf(request.isOpen)
        : (request.reason() + '\n').getBytes(StandardCharsets.US_ASCII);
    String type = !isOk
        ? "text/plain; charset=utf-8"
        : request.isOpen
            ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
            : "text/plain; version=0.0.4; charset=utf-8";
    String more = request.status == 401
        ? "WWW-Authenticate: Bearer\r\n"
        : request.status == 405 ? "Allow: GET\r\n" : "";
    byte[] head = ("HTTP/1.1 " + request.reason() + "\r\nContent-Type: " + type
        + "\r\nContent-Length: " + body.length + "\r\n" + more
        + "Cache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n")
        .getBytes(StandardCharsets.US_ASCII);
    ByteBuffer answer = ByteBuffer.allocate(head.length + body.length);
    answer.put(head).put(body).flip();
    return answer;
  }

  /** However many ask, it is put together a few times in a second only. */
  private byte[] pageOf(boolean isOpen) {
    int which = isOpen ? 1 : 0;
    long now = System.nanoTime();
    if (pages[which] == null || now - pagesAt[which] > NANOS_OF_PAGE) {
      pages[which] = page.write(isOpen).getBytes(StandardCharsets.UTF_8);
      pagesAt[which] = now;
    }
    return pages[which];
  }

  private void closeLate() {
    long now = System.nanoTime();
    for (SelectionKey key : new ArrayList<>(selector.keys())) {
      Connection connection = (Connection) key.attachment();
      if (connection != null && now - connection.end > 0) {
        close(key);
      }
    }
  }

  private static void close(SelectionKey key) {
    key.cancel();
    try {
      key.channel().close();
    } catch (IOException e) {
      // It is gone.
    }
  }

  private void closeAll() throws IOException {
    List<SelectionKey> all = new ArrayList<>(selector.keys());
    for (SelectionKey key : all) {
      close(key);
    }
    selector.close();
  }
}
