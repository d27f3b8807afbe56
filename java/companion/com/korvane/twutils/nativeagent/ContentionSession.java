package com.korvane.twutils.nativeagent;

/**
 * A contention profile that is under way: begun by {@link NativeAgent#startContention}, over with
 * {@link #stop}.
 */
public final class ContentionSession extends ProfileSession {
  private final ContentionSettings settings;

  private ContentionSession(long id, ContentionSettings settings) {
    super(Feature.CONTENTION, id, settings.report);
    this.settings = settings;
  }

  /** Within {@link NativeAgent#locked}. */
  static ContentionSession start(long id, ContentionSettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of a contention session");
    }
    ContentionSession session = new ContentionSession(id, settings);
    session.start();
    return session;
  }

  @Override
  String startProfile() {
    return AgentContention.isRunning()
        ? null
        : AgentContention.start(
            settings.locks,
            settings.samples,
            settings.budget,
            settings.stuck.toMillis(),
            settings.window.toMillis());
  }

  @Override
  void reportAtEnd(String report, boolean isEnding) {
    AgentContention.reportAtEnd(report, isEnding);
  }

  @Override
  String writeProfile(String part) {
    return AgentContention.snapshot(part);
  }

  @Override
  void stopProfile(boolean afterCollection) {
    AgentContention.stop();
  }
}
