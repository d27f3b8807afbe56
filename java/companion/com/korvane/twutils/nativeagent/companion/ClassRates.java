package com.korvane.twutils.nativeagent.companion;

/** What classes grow by, as of one moment. Not changed once it is made. */
final class ClassRates {
  final String[] names;
  final long[] perMinute; // bytes, by the same places

  ClassRates(String[] names, long[] perMinute) {
    this.names = names;
    this.perMinute = perMinute;
  }
}
