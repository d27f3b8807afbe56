/** Attaches the library, a copy of it, and the library. Arguments: library, options, copy. */
public final class AttachCopies {
  private AttachCopies() {}

  public static void main(String[] args) throws Exception {
    Facts.put("first", SelfAttach.load(args[0], args[1]));
    Facts.put("copy", SelfAttach.load(args[2], args[1]));
    Facts.put("again", SelfAttach.load(args[0], args[1]));
  }
}
