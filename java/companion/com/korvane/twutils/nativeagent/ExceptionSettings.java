package com.korvane.twutils.nativeagent;

import java.util.Arrays;
import java.util.Collection;
import java.util.Collections;
import java.util.List;

/**
 * What is captured of which exceptions. Settings that are not set have the values that their
 * methods name.
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class ExceptionSettings {
  private static final int MAX_DEPTH = 100; // what the agent walks at most

  boolean fields = true;
  boolean arguments = true;
  boolean locals = true;
  boolean threadLocals;
  int rate = 10;
  int depth = 20;
  List<String> excluded = Collections.emptyList();

  /** Whether to capture the fields of {@code this} in the method that throws; true. */
  public ExceptionSettings fields(boolean isCaptured) {
    fields = isCaptured;
    return this;
  }

  /** Whether to capture the arguments of the methods on the stack; true. */
  public ExceptionSettings arguments(boolean isCaptured) {
    arguments = isCaptured;
    return this;
  }

  /** Whether to capture the local variables of the methods on the stack; true. */
  public ExceptionSettings locals(boolean isCaptured) {
    locals = isCaptured;
    return this;
  }

  /** Whether to capture the thread locals of the thread that throws; false. */
  public ExceptionSettings threadLocals(boolean isCaptured) {
    threadLocals = isCaptured;
    return this;
  }

  /** How many records of one exception class are let through in 60 seconds, 0 for any; 10. */
  public ExceptionSettings rate(int count) {
    rate = Check.atLeast("rate", 0, count);
    return this;
  }

  /** How many frames are captured, 100 at most; 20. */
  public ExceptionSettings depth(int frames) {
    depth = Check.within("depth", 1, MAX_DEPTH, frames);
    return this;
  }

  /** Names of exception classes that are not captured, in place of those set before; none. */
  public ExceptionSettings exclude(Collection<String> classNames) {
    excluded = Check.names("exclude", classNames);
    return this;
  }

  /** See {@link #exclude(Collection)}. */
  public ExceptionSettings exclude(String... classNames) {
    return exclude(classNames == null ? null : Arrays.asList(classNames));
  }

  /** The list as the agent takes it. */
  String blackList() {
    return '[' + String.join(",", excluded) + ']';
  }
}
