# Finds one JDK to compile with: JAVA_HOME, then the javac on the path, then the JVM folder.
# Gives the target `jdkHeaders` (jni.h, jvmti.h) and the programs JAVAC and JAR.
file(GLOB jdkHomes LIST_DIRECTORIES true /usr/lib/jvm/*)
find_program(JAVAC javac HINTS $ENV{JAVA_HOME}/bin)
if(NOT JAVAC)
  list(TRANSFORM jdkHomes APPEND /bin)
  find_program(JAVAC javac PATHS ${jdkHomes} REQUIRED)
endif()
file(REAL_PATH ${JAVAC} javacPath)
cmake_path(GET javacPath PARENT_PATH jdkBin)
cmake_path(GET jdkBin PARENT_PATH JDK_HOME)
find_program(JAR jar HINTS ${jdkBin} NO_DEFAULT_PATH REQUIRED)
if(NOT EXISTS ${JDK_HOME}/include/jvmti.h)
  message(FATAL_ERROR "${JDK_HOME} has no include/jvmti.h: a JDK with its headers is needed")
endif()

add_library(jdkHeaders INTERFACE)
target_include_directories(jdkHeaders SYSTEM INTERFACE ${JDK_HOME}/include
                                                       ${JDK_HOME}/include/linux)
