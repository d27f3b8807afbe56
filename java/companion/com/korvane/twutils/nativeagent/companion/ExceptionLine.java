package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionMessage;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.Redaction;
import com.korvane.twutils.nativeagent.ValueState;
import com.korvane.twutils.nativeagent.ValueType;
import java.time.Instant;
import java.time.ZoneOffset;
import java.time.format.DateTimeFormatter;
import java.util.List;

/** A captured exception as a line of its file: a JSON object with the record, decoded and raw. */
final class ExceptionLine {
  private static final String UNKNOWN_SOURCE = "NA";
  private static final String VIRTUAL_THREAD = "java.lang.VirtualThread";
  private static final DateTimeFormatter TIME =
      DateTimeFormatter.ofPattern("yyyy-MM-dd'T'HH:mm:ss.SSS'Z'").withZone(ZoneOffset.UTC);

  private ExceptionLine() {}

  /** Without a line end. */
  static String of(ExceptionEvent event) {
    Object exception = event.exception;
    String className = event.className;
    if (className == null) {
      className = exception == null ? "" : exception.getClass().getName();
    }
    return of(event, className, ExceptionMessage.of(exception));
  }

  static String of(ExceptionEvent event, String className, String message) {
    ExceptionRecord decoded = ExceptionRecord.parse(event.record, event.places);
    JsonText json = new JsonText().beginObject();
    json.key("time").value(TIME.format(Instant.ofEpochMilli(event.millis)));
    json.key("thread").value(Redaction.text(event.thread));
    json.key("class").value(className);
    json.key("message").value(Redaction.text(message));
    json.key("caught").literal(String.valueOf(event.facts.isCaught()));
    if (event.isCut) {
      json.key("cut").value(true);
    }
    json.key("frames").beginArray();
    boolean isVirtual =
        event.isKeptOfVirtual || VIRTUAL_THREAD.equals(event.threadClass.getName());
    for (ExceptionRecord.Frame frame : decoded.frames()) {
      write(json, frame, isVirtual);
    }
    json.endArray();
    if (!decoded.doubts().isEmpty()) {
      json.key("ambiguous").beginArray();
      for (ExceptionRecord.Doubt doubt : decoded.doubts()) {
        json.value(doubt.toString());
      }
      json.endArray();
    }
    return json.key("raw").value(event.record).endObject().toString();
  }

  private static void write(JsonText json, ExceptionRecord.Frame frame, boolean isVirtual) {
    String method =
        frame.className().isEmpty()
            ? frame.methodName()
            : frame.className() + '.' + frame.methodName();
    json.beginObject();
    json.key("method").value(method);
    json.key("file").value(UNKNOWN_SOURCE.equals(frame.sourceFile()) ? null : frame.sourceFile());
    json.key("line").value(frame.line());
    write(json.key("fields"), frame.classVariables(), false);
    write(json.key("arguments"), frame.arguments(), isVirtual);
    write(json.key("locals"), frame.locals(), isVirtual);
    write(json.key("threadLocals"), frame.threadLocals(), false);
    json.endObject();
  }

  /**
   * With uncertain nulls, an object that reads as null may be one that compiled code has taken
   * apart.
   */
  private static void write(
      JsonText json, List<CapturedValue> values, boolean areNullsUncertain) {
    json.beginArray();
    for (CapturedValue value : values) {
      json.beginObject();
      json.key("name").value(value.name());
      json.key("type").value(value.type().toString());
      if (value.isStatic()) {
        json.key("static").value(true);
      }
      if (value.type() == ValueType.OBJECT && value.state() == ValueState.VALUE) {
        write(json.key("fields"), value.fields(), false);
      } else {
        json.key("value").value(textOf(value));
        writeState(json, value, areNullsUncertain);
      }
      json.endObject();
    }
    json.endArray();
  }

  private static void writeState(JsonText json, CapturedValue value, boolean areNullsUncertain) {
    switch (value.state()) {
      case NOT_READ:
        json.key("notRead").value(true);
        break;
      case NOT_AVAILABLE:
      case UNREADABLE:
        json.key("notAvailable").value(true);
        break;
      case REDACTED:
        json.key("redacted").value(reasonIn(value.text()));
        break;
      case NULL_OR_NOT_READ:
        json.key("uncertain").value(true);
        break;
      case NULL:
        if (areNullsUncertain) {
          json.key("uncertain").value(true);
        }
        break;
      default:
        break;
    }
  }

  /** Of {@code <redacted:reason>}. */
  private static String reasonIn(String text) {
    return text.substring(text.indexOf(':') + 1, text.length() - 1);
  }

  /** As Java would print it: a record has codes for booleans and characters. */
  private static String textOf(CapturedValue value) {
    if (value.state() == ValueState.NOT_AVAILABLE) {
      return null;
    }
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
