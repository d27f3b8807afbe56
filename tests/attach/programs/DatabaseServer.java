import org.h2.tools.Server;

/** An SQL database in memory that serves by TCP. Prints "port N". */
public final class DatabaseServer {
  public static void main(String[] args) throws Exception {
    Server server = Server.createTcpServer("-tcpPort", "0", "-ifNotExists").start();
    System.out.println("port " + server.getPort());
  }

  private DatabaseServer() {}
}
