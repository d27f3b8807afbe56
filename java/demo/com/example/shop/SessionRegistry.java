package com.example.shop;

import java.util.HashMap;
import java.util.Map;

/** All sessions by number. Nothing ever takes one out again: this is the shop's memory leak. */
final class SessionRegistry {
  private final Map<Long, Session> sessions = new HashMap<>();

  synchronized Session open(int customer) {
    Session session = new Session(sessions.size(), customer);
    sessions.put(session.number, session);
    return session;
  }

  synchronized int size() {
    return sessions.size();
  }
}
