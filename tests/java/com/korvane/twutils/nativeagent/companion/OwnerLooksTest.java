package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.file.Path;
import java.util.Collections;

/** The looks for owners at the end of a lock report, and reports that do not tell of them. */
public final class OwnerLooksTest {
  private static final String LOOKS =
      "\"ownerLookups\": {\n  \"perSecond\": 100,\n  \"made\": 812,\n  \"leftOut\": 12345\n }";

  private OwnerLooksTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(OwnerLooksTest::reports);
    Checks.end();
  }

  private static void reports(Path folder) throws Exception {
    String root = "{\n \"blockingThreads\": {";
    same("told", "812 12345", looks(folder, root + "},\n " + LOOKS + "\n}"));
    same("without blanks", "812 12345",
        looks(folder, (root + "}," + LOOKS + "}").replaceAll("\\s", "")));
    String threads = String.join("", Collections.nCopies(1000, "\"worker\": {}, "));
    same("long", "812 12345", looks(folder, root + threads + "\"\": {}},\n " + LOOKS + "\n}\n"));
    same("large", "4294967296 999999999999999999",
        looks(folder, root + "}," + LOOKS.replace("812", "4294967296")
            .replace("12345", "999999999999999999") + "}"));

    same("not limited", null, looks(folder, root + "}\n}"));
    same("not the report's own", null, looks(folder, root + LOOKS + "}\n}"));
    String name = LOOKS.replace("\"", "\\\"").replace("\n", "\\n");
    same("in a name", null, looks(folder, root + "\"" + name + "}\": {}}\n}"));
    same("cut", null, looks(folder, root + "},\n " + LOOKS));
    same("too large", null,
        looks(folder, root + "}," + LOOKS.replace("812", "9999999999999999999") + "}"));
    same("empty", null, looks(folder, ""));
  }

  private static String looks(Path folder, String report) throws Exception {
    Path file = folder.resolve("locks-1.json");
    Checks.write(file, report);
    OwnerLooks looks = OwnerLooks.of(file);
    return looks == null ? null : looks.made + " " + looks.leftOut;
  }
}
