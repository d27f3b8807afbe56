package com.example.tracked;

/** What memory sessions of the tests follow: the agent reports classes of a package only. */
public class Tracked {
  public int number;

  /** A subclass, which is another class. */
  public static final class Sub extends Tracked {}
}
