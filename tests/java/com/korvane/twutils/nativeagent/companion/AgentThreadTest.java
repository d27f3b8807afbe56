package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.lang.reflect.Field;
import java.util.concurrent.ExecutionException;

/** What the threads of the companion know of failures. */
public final class AgentThreadTest {
  private AgentThreadTest() {}

  public static void main(String[] args) throws Exception {
    wrappersCountOnce();
    Checks.end();
  }

  /** Management comes again with each attach. */
  private static void wrappersCountOnce() throws ReflectiveOperationException {
    Field wrappers = AgentThread.class.getDeclaredField("wrappers");
    wrappers.setAccessible(true);
    int before = ((Class<?>[]) wrappers.get(null)).length;
    for (int i = 0; i < 3; i++) {
      AgentThread.addWrappers(ExecutionException.class, IllegalStateException.class);
    }
    same("wrappers", before + 2, ((Class<?>[]) wrappers.get(null)).length);
    try {
      AgentThread.<Void, Exception>help(
          () -> {
            throw new Exception("of help");
          });
    } catch (Exception e) {
      same("wrapped", true, AgentThread.isFailureOfHelp(new ExecutionException(e)));
      same("not wrapped", false, AgentThread.isFailureOfHelp(new RuntimeException(e)));
    }
  }
}
