import java.net.URI;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * Throws with secrets wherever a record takes values from. The secrets are the lines of a file: a
 * kind, a tab, and the value. "text" mode throws with each value as an innocent local instead.
 */
public final class PlantedValues {
  /** What nobody may see of it. */
  static final class DbCredentials {
    final String user;
    final String key;

    DbCredentials(String key) {
      this.user = key;
      this.key = key;
    }
  }

  static final class Holder {
    final Object inner;
    final String clientSecret;

    Holder(Object inner, String clientSecret) {
      this.inner = inner;
      this.clientSecret = clientSecret;
    }
  }

  private static final class Login {
    static String apiKey;
    String password;
    StringBuilder secretText;
    char[] characters;
    DbCredentials database;
    Object hidden;
    Holder holder;
    String url;
    String note;
    URI address;
    long number;
    StringBuilder built;

    void check(
        String authToken, StringBuilder passphrase, char[] typed, String secret, int userPin) {
      String dsn = "jdbc:x://h;user=sa;password=" + secret + ";encrypt=true";
      StringBuilder json = new StringBuilder("{\"token\": \"").append(secret).append("\"}");
      Object any = new DbCredentials(secret);
      Holder nested = new Holder(new Holder(any, secret), secret);
      String cut = padding() + "password=" + secret;
      throw new IllegalStateException(
          "login refused: password=" + secret + " of https://u:" + secret + "@h/ " + dsn.length()
              + json.length() + nested.hashCode() + cut.length() + typed.length + userPin);
    }

    private static String padding() {
      StringBuilder text = new StringBuilder();
      while (text.length() < 240) {
        text.append("0 ");
      }
      return text.toString();
    }
  }

  private static final ThreadLocal<Object> LOCAL = new ThreadLocal<>();

  private PlantedValues() {}

  private static void plant(Map<String, String> secret) {
    Login login = new Login();
    Login.apiKey = secret.get("word1");
    login.password = secret.get("word2");
    login.secretText = new StringBuilder(secret.get("word3"));
    login.characters = secret.get("word4").toCharArray();
    login.database = new DbCredentials(secret.get("word5"));
    login.hidden = new DbCredentials(secret.get("word6"));
    login.holder = new Holder(new DbCredentials(secret.get("word7")), secret.get("word8"));
    login.url = "https://u:" + secret.get("word9") + "@h/?access_token=" + secret.get("word10");
    login.address = URI.create("ftp://u:" + secret.get("word16") + "@h:21/p");
    login.note = "paid with " + secret.get("card1") + " to " + secret.get("iban");
    login.number = Long.parseLong(secret.get("card2"));
    login.built = new StringBuilder("sent Bearer ").append(secret.get("jwt"));
    LOCAL.set(new Holder(secret.get("card3"), secret.get("word11")));
    try {
      login.check(
          secret.get("word12"), new StringBuilder(secret.get("word13")),
          secret.get("word14").toCharArray(), secret.get("word15"), 0);
    } catch (IllegalStateException e) {
      LOCAL.remove();
    }
  }

  private static void innocent(String text) {
    throw new IllegalArgumentException("innocent");
  }

  public static void main(String[] args) throws Exception {
    List<String> lines = new ArrayList<>(Files.readAllLines(Paths.get(args[1])));
    Map<String, String> round = new HashMap<>();
    for (String line : lines) {
      if (args[0].equals("text")) {
        try {
          innocent(line);
        } catch (IllegalArgumentException e) {
          continue;
        }
      }
      if (line.equals("throw")) {
        plant(round);
        continue;
      }
      round.put(line.substring(0, line.indexOf('\t')), line.substring(line.indexOf('\t') + 1));
    }
  }
}
