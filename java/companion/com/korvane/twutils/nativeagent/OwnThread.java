package com.korvane.twutils.nativeagent;

/** Marks threads of the agent's own, on which no code of the program runs. */
public interface OwnThread {}
