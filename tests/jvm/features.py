"""What JDKs differ in: tests ask for a feature by its name, not for a version."""

from typing import NamedTuple


class Feature(NamedTuple):
    """In which JDKs there is something, the last ones included."""

    name: str
    first: int
    last: int = 1000


MODULES = Feature("modules", 9)
REFLECTION_OUTSIDE_SUN = Feature("reflection that is not of sun.", 9)
PARKS_OF_STAMPED_LOCKS = Feature("parks of stamped locks that go through LockSupport", 9)
CHECKED_JDK = Feature("native code of the JDK that passes the checks of the native interface", 9)
CLASSES_ARE_NO_ROOTS = Feature("recordings in which loaded classes are no roots", 9)
JCMD_LOADS_AGENTS = Feature("jcmd with a command that loads agents", 9)
USED_REFERENCES_ARE_COUNTED = Feature("a count of global references that leaves out deleted ones", 9)
SAMPLED_ALLOCATIONS = Feature("sampled allocations", 11)
CDS_LOG = Feature("a log of the class data archive", 11)
EXACT_PARKS = Feature("exact counts of parks", 14)
SECURITY_MANAGER = Feature("a security manager, without a warning", 8, 17)
SECURITY_MANAGER_BY_WORD = Feature("the option to allow a security manager", 12, 23)
THREAD_STOP = Feature("Thread.stop", 8, 19)
INTERNED_STRINGS_ARE_NO_ROOTS = Feature("recordings in which interned strings are no roots", 17)
PARKS_OF_TASKS = Feature("joins of tasks that park, not wait", 17)
SAMPLES_AS_ASKED = Feature("samples that are no more than asked for, of large objects, too", 17)
STOPS_IN_LOG = Feature("stops of the program in the log under these names", 17)
EXCEPTIONS_IN_RECORDINGS = Feature("settings of recorded exceptions by these names", 17)
VIRTUAL_THREADS = Feature("virtual threads", 21)
GENERATIONAL_ZGC = Feature("ZGC with generations", 21)
UNNOTIFIED_ARE_COUNTED = Feature("a count of the waiters that were not notified", 8, 22)
VIRTUAL_OWNERS = Feature("names of owners that are virtual threads", 21, 22)
NOTIFIED_STAND_IN_QUEUE = Feature("a queue that notified waiters stand in at once", 8, 26)
END_WITHIN_HANDLERS = Feature("an end that does not wait for the handler that calls it", 8, 25)
LAST_LOOK_OF_THE_AGENT = Feature("an end that the agent may see to the last collection", 8, 25)
COMPACT_HEADERS = Feature("objects with a short header", 27)
VIRTUAL_THREADS_LEAVE = Feature("virtual threads that leave their carrier when they block", 24)
AOT_CACHE = Feature("an AOT cache that is made in one step", 25)
