// The end of the VM, as the event handlers that still run see it.
//
// HotSpot 26 and later wait at their end, up to a minute, until no handler runs any more
// (JDK-8355631), and at first in a state that lets no safepoint begin (JDK-8387045). Whatever
// handler waits for a safepoint then, because it asks for one or because it returns to the VM while
// one is due, holds the end up for that minute. So handlers have to be out before. The VM posts
// ThreadEnd for the thread that ends it just before it begins to wait.
#pragma once

#include <jvmti.h>

namespace agent {

// Begins to watch for the end of `vm`, with a JVMTI environment of its own. Called when the agent
// is loaded.
// `atEnd` is called once, on the thread that ends the VM, in the live phase; vmIsEnding() holds by
// then. A VM before 26, which waits for nobody, is not watched; nor is one that gives no
// environment or refuses the event.
void watchForVmEnd(JavaVM* vm, void (*atEnd)());

// Goes on with the environment of before, if there is one; stopWatchingForVmEnd() leaves it there.
void watchForVmEndAgain(JavaVM* vm, void (*atEnd)());
void stopWatchingForVmEnd();

// Whether the VM is about to end: handlers make no call any more that waits for a safepoint. Any
// thread; to be asked just before each such call.
bool vmIsEnding();

}  // namespace agent
