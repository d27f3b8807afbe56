package com.korvane.twutils.nativeagent.companion;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.UnsupportedEncodingException;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.util.Base64;
import java.util.Map;

/** How a server takes a window: see docs/push.md for the versions of these interfaces. */
enum PushForm {
  /** The ingest API of Pyroscope: a form with the profile, the rest in the query. */
  PYROSCOPE("/ingest", "multipart/form-data; boundary=" + PushForm.BOUNDARY) {
    @Override
    String query(PushWindow window, Map<String, String> labels) {
      StringBuilder name = new StringBuilder(labels.getOrDefault(SERVICE, "java")).append('{');
      for (Map.Entry<String, String> label : labels.entrySet()) {
        if (!label.getKey().equals(SERVICE)) {
          name.append(name.charAt(name.length() - 1) == '{' ? "" : ",");
          name.append(label.getKey()).append('=').append(label.getValue());
        }
      }
      return "?name=" + encoded(name.append('}').toString())
          + "&from=" + window.fromMillis / 1000
          + "&until=" + (window.untilMillis + 999) / 1000
          + "&format=pprof&spyName=javanativeagent";
    }

    @Override
    byte[] body(PushWindow window, byte[] content, Map<String, String> labels) throws IOException {
      ByteArrayOutputStream out = new ByteArrayOutputStream(content.length + 2048);
      beginPart(out, "profile\"; filename=\"profile.pb.gz", "application/octet-stream");
      out.write(content);
      beginPart(out, "sample_type_config\"; filename=\"config.json", "application/json");
      out.write(sampleTypes().getBytes(StandardCharsets.UTF_8));
      out.write(("\r\n--" + BOUNDARY + "--\r\n").getBytes(StandardCharsets.US_ASCII));
      return out.toByteArray();
    }
  },

  /** The write API of Parca, as JSON. */
  PARCA("/api/profiles/writeraw", "application/json") {
    @Override
    String query(PushWindow window, Map<String, String> labels) {
      return "";
    }

    @Override
    byte[] body(PushWindow window, byte[] content, Map<String, String> labels) {
      JsonText json = new JsonText().beginObject().key("series").beginArray().beginObject();
      json.key("labels").beginObject().key("labels").beginArray();
      json.beginObject().key("name").value("__name__").key("value").value(window.kind).endObject();
      for (Map.Entry<String, String> label : labels.entrySet()) {
        json.beginObject().key("name").value(label.getKey());
        json.key("value").value(label.getValue()).endObject();
      }
      json.endArray().endObject();
      json.key("samples").beginArray().beginObject();
      json.key("rawProfile").value(Base64.getEncoder().encodeToString(content));
      json.endObject().endArray().endObject().endArray().endObject();
      return json.toString().getBytes(StandardCharsets.UTF_8);
    }
  };

  /** The label that names the program. */
  static final String SERVICE = "service";

  private static final String BOUNDARY = "javanativeagent-f1c6a9b27d34e805";

  private static final String[][] SAMPLE_TYPES = {
    {"contentions", "lock_samples", "sum"},
    {"delay", "lock_nanoseconds", "sum"},
    {"exceptions", "samples", "sum"},
    {"alloc_objects", "objects", "sum"},
    {"alloc_space", "bytes", "sum"},
    {"inuse_objects", "objects", "average"},
    {"inuse_space", "bytes", "average"},
  };

  final String path; // of a server whose URL has none
  final String contentType;

  PushForm(String path, String contentType) {
    this.path = path;
    this.contentType = contentType;
  }

  /** What follows the path. */
  abstract String query(PushWindow window, Map<String, String> labels);

  abstract byte[] body(PushWindow window, byte[] content, Map<String, String> labels)
      throws IOException;

  private static void beginPart(ByteArrayOutputStream out, String name, String type)
      throws IOException {
    String head = "\r\n--" + BOUNDARY + "\r\nContent-Disposition: form-data; name=\"" + name
        + "\"\r\nContent-Type: " + type + "\r\n\r\n";
    out.write(head.substring(out.size() == 0 ? 2 : 0).getBytes(StandardCharsets.US_ASCII));
  }

  private static String sampleTypes() {
    JsonText json = new JsonText().beginObject();
    for (String[] each : SAMPLE_TYPES) {
      json.key(each[0]).beginObject().key("units").value(each[1]).key("aggregation").value(each[2]);
      json.key("display-name").value(each[0]).key("sampled").value(false).endObject();
    }
    return json.endObject().toString();
  }

  private static String encoded(String text) {
    try {
      return URLEncoder.encode(text, "UTF-8");
    } catch (UnsupportedEncodingException e) {
      throw new IllegalStateException(e);
    }
  }
}
