package payload;

import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.function.Supplier;

/** Classes of objects to follow; only classes within a package are reported. */
public final class Payload {
  private Payload() {}

  /** No field: nothing but a header. */
  public static class Plain {}

  /** Four longs more than {@link Plain}. */
  public static class Wide {
    public long a;
    public long b;
    public long c;
    public long d;
  }

  public static class Dropped {}

  public static class Latest {}

  public static class Group0 {}

  public static class Group1 {}

  public static class Group2 {}

  public static class Group3 {}

  public static class Group4 {}

  public static class Group5 {}

  /** Makers of the objects of each group, which has a class of its own. */
  public static final List<Supplier<Object>> GROUPS = Collections.unmodifiableList(
      Arrays.asList(Group0::new, Group1::new, Group2::new, Group3::new, Group4::new, Group5::new));
}
