package com.korvane.twutils.nativeagent;

import java.util.Arrays;
import java.util.Collection;
import java.util.Collections;
import java.util.List;

/**
 * What is captured of which exceptions. Settings that are not set have the default of the
 * companion's option by their name ({@link OptionKey}).
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class ExceptionSettings {
  boolean fields = OptionKey.EXCEPTIONS_FIELDS.defaultAmount() != 0;
  boolean arguments = OptionKey.EXCEPTIONS_ARGUMENTS.defaultAmount() != 0;
  boolean locals = OptionKey.EXCEPTIONS_LOCALS.defaultAmount() != 0;
  boolean threadLocals = OptionKey.EXCEPTIONS_THREAD_LOCALS.defaultAmount() != 0;
  int rate = (int) OptionKey.EXCEPTIONS_RATE.defaultAmount();
  int depth = (int) OptionKey.EXCEPTIONS_DEPTH.defaultAmount();
  List<String> excluded = Collections.emptyList();

  /** Whether to capture the fields of {@code this} in the method that throws. */
  public ExceptionSettings fields(boolean isCaptured) {
    fields = isCaptured;
    return this;
  }

  /** Whether to capture the arguments of the methods on the stack. */
  public ExceptionSettings arguments(boolean isCaptured) {
    arguments = isCaptured;
    return this;
  }

  /** Whether to capture the local variables of the methods on the stack. */
  public ExceptionSettings locals(boolean isCaptured) {
    locals = isCaptured;
    return this;
  }

  /** Whether to capture the thread locals of the thread that throws. */
  public ExceptionSettings threadLocals(boolean isCaptured) {
    threadLocals = isCaptured;
    return this;
  }

  /** How many records of one exception class are let through in 60 seconds, 0 for any. */
  public ExceptionSettings rate(int count) {
    rate = Check.number("rate", OptionKey.EXCEPTIONS_RATE, count);
    return this;
  }

  /** How many frames are captured. */
  public ExceptionSettings depth(int frames) {
    depth = Check.number("depth", OptionKey.EXCEPTIONS_DEPTH, frames);
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
