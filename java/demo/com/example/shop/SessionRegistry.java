package com.example.shop;

import java.util.HashMap;
import java.util.Map;
import java.util.function.Consumer;

/** All sessions by number. Nothing ever takes one out again: this is the shop's memory leak. */
final class SessionRegistry {
  private final Map<Long, Session> sessions = new HashMap<>();
  private final Consumer<Object> follower;

  /** The follower is given each new session. */
  SessionRegistry(Consumer<Object> follower) {
    this.follower = follower;
  }

  synchronized Session open(int customer) {
    Session session = new Session(sessions.size(), customer);
    sessions.put(session.number, session);
    follower.accept(session);
    return session;
  }

  synchronized int size() {
    return sessions.size();
  }
}
