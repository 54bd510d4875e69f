# Steps of the Java tests, run by ctest as `cmake -DMODE=... -P JavaTests.cmake`.
#   compile: javac --release 8 of SOURCES (the plug-in's class and the Android stand-ins) into a
#            fresh OUT, warnings as errors.
#   run:     compiles the test SOURCES against CLASSES into a fresh OUT and runs MAIN.
#   missing: fails, saying that no JDK was found.
cmake_minimum_required(VERSION 3.22)

if(MODE STREQUAL "missing")
  message(FATAL_ERROR "No JDK 17 (javac) was found when configuring; scripts/deps.sh installs openjdk-17-jdk-headless.")
endif()

file(REMOVE_RECURSE "${OUT}")
file(MAKE_DIRECTORY "${OUT}")

if(MODE STREQUAL "compile")
  execute_process(
    COMMAND "${JAVAC}" --release 8 ${LINT} -Werror -proc:none -implicit:none -encoding UTF-8 -d "${OUT}" ${SOURCES}
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "javac failed (${result})")
  endif()
elseif(MODE STREQUAL "run")
  execute_process(
    COMMAND "${JAVAC}" -Xlint:all -Werror -proc:none -encoding UTF-8 -classpath "${CLASSES}" -d "${OUT}" ${SOURCES}
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "javac of the tests failed (${result})")
  endif()
  execute_process(
    COMMAND "${JAVA}" -classpath "${OUT}:${CLASSES}" ${MAIN}
    RESULT_VARIABLE result TIMEOUT 60)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${MAIN} failed (${result})")
  endif()
else()
  message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()
