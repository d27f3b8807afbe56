package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.ValueType;
import java.time.Instant;
import java.time.ZoneOffset;
import java.time.format.DateTimeFormatter;
import java.util.List;

/** A captured exception, as it waits to be written: nothing of the program is held by it. */
final class ExceptionEvent {
  private static final int kMaxMessage = 8192; // characters; a longer one is cut
  private static final String kUnknownSource = "NA";
  private static final DateTimeFormatter kTime =
      DateTimeFormatter.ofPattern("yyyy-MM-dd'T'HH:mm:ss.SSS'Z'").withZone(ZoneOffset.UTC);

  private final long millis;
  private final String thread;
  private final String className;
  private final String message;
  private final String record;

  ExceptionEvent(long millis, String thread, String className, String message, String record) {
    this.millis = millis;
    this.thread = thread;
    this.className = className;
    this.message = message;
    this.record = record;
  }

  /** For an exception that this thread is throwing now. Its message is asked for here. */
  static ExceptionEvent of(String record, Object exception) {
    return new ExceptionEvent(
        System.currentTimeMillis(),
        Thread.currentThread().getName(),
        exception == null ? "" : exception.getClass().getName(),
        messageOf(exception),
        record == null ? "" : record);
  }

  private static String messageOf(Object exception) {
    String message = null;
    try {
      message = exception instanceof Throwable ? ((Throwable) exception).getMessage() : null;
    } catch (Throwable e) {
      // Code of the program: an exception without a message, then.
    }
    return message == null || message.length() <= kMaxMessage
        ? message
        : message.substring(0, kMaxMessage);
  }

  /** How many characters it holds, about. */
  int length() {
    return record.length() + (message == null ? 0 : message.length()) + 100;
  }

  /** Its line in the file, without a line end. The agent does not tell whether it was caught. */
  String toJson() {
    ExceptionRecord decoded = ExceptionRecord.parse(record);
    JsonText json = new JsonText().beginObject();
    json.key("time").value(kTime.format(Instant.ofEpochMilli(millis)));
    json.key("thread").value(thread);
    json.key("class").value(className);
    json.key("message").value(message);
    json.key("caught").literal("null");
    json.key("frames").beginArray();
    for (ExceptionRecord.Frame frame : decoded.frames()) {
      write(json, frame);
    }
    json.endArray();
    if (!decoded.doubts().isEmpty()) {
      json.key("ambiguous").beginArray();
      for (ExceptionRecord.Doubt doubt : decoded.doubts()) {
        json.value(doubt.toString());
      }
      json.endArray();
    }
    return json.key("raw").value(record).endObject().toString();
  }

  private static void write(JsonText json, ExceptionRecord.Frame frame) {
    String method =
        frame.className().isEmpty()
            ? frame.methodName()
            : frame.className() + '.' + frame.methodName();
    json.beginObject();
    json.key("method").value(method);
    json.key("file").value(kUnknownSource.equals(frame.sourceFile()) ? null : frame.sourceFile());
    json.key("line").value(frame.line());
    write(json.key("fields"), frame.classVariables());
    write(json.key("arguments"), frame.arguments());
    write(json.key("locals"), frame.locals());
    write(json.key("threadLocals"), frame.threadLocals());
    json.endObject();
  }

  private static void write(JsonText json, List<CapturedValue> values) {
    json.beginArray();
    for (CapturedValue value : values) {
      json.beginObject();
      json.key("name").value(value.name());
      json.key("type").value(value.type().toString());
      if (value.type() == ValueType.OBJECT && !value.isNull()) {
        write(json.key("fields"), value.fields());
      } else {
        json.key("value").value(textOf(value));
      }
      json.endObject();
    }
    json.endArray();
  }

  /** As Java would print it: a record has codes for booleans and characters. */
  private static String textOf(CapturedValue value) {
    switch (value.type()) {
      case BOOLEAN:
        return value.text().equals("0") ? "false" : "true";
      case CHAR:
        return character(value.text());
      default:
        return value.text();
    }
  }

  private static String character(String code) {
    long number = code.length() > 5 ? -1 : Long.parseLong(code);
    boolean isCharacter = number >= 0 && number <= Character.MAX_VALUE;
    return isCharacter ? String.valueOf((char) number) : code;
  }
}
