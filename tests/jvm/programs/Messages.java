import java.nio.file.NoSuchFileException;

/** Exceptions whose messages are those that they were given, and others. */
public final class Messages {
  private static volatile int asked;

  private Messages() {}

  public static void main(String[] args) {
    raise(new IllegalStateException("given"));
    raise(new Inherited("given"));
    raise(new Talking());
    raise(new Reasoning());
    raise(new NoSuchFileException("a file", null, "why"));
    Facts.put("asked", asked);
  }

  private static void raise(Exception exception) {
    try {
      throw exception;
    } catch (Exception e) {
      Throwers.use(e);
    }
  }

  private static final class Inherited extends IllegalStateException {
    private static final long serialVersionUID = 1;

    Inherited(String message) {
      super(message);
    }
  }

  private static final class Talking extends RuntimeException {
    private static final long serialVersionUID = 1;

    @Override
    public String getMessage() {
      asked++;
      return "made up";
    }
  }

  private static final class Reasoning extends NoSuchFileException {
    private static final long serialVersionUID = 1;

    Reasoning() {
      super("file");
    }

    @Override
    public String getReason() {
      asked++;
      return "made up";
    }
  }
}
