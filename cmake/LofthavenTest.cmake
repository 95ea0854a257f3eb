# One QtTest executable per subject:
#   lofthaven_add_test(NAME zipstream SOURCES tst_zipstream.cpp LIBS lofthaven_send)
# The test runs from the build tree with a UTF-8 locale and no display. WRAPPER runs it under
# another command, e.g. WRAPPER dbus-run-session -- for a private session bus.
function(lofthaven_add_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS;WRAPPER" ${ARGN})
  set(target tst_${T_NAME})
  add_executable(${target} ${T_SOURCES})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_link_libraries(${target} PRIVATE Qt6::Test ${T_LIBS})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  target_compile_definitions(${target} PRIVATE
    LOFTHAVEN_BIN_DIR="${CMAKE_BINARY_DIR}/bin"
    LOFTHAVEN_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  add_test(NAME ${T_NAME} COMMAND ${T_WRAPPER} $<TARGET_FILE:${target}>)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${T_NAME} PROPERTIES
    TIMEOUT ${T_TIMEOUT}
    LABELS "${T_LABELS}"
    ENVIRONMENT "LANG=C.UTF-8;QT_QPA_PLATFORM=offscreen;QT_LOGGING_RULES=*.debug=false")
endfunction()
