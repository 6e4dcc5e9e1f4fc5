# notify_bench starts velm-simpm and the sendmail stand-in from its own directory.
add_dependencies(notify_bench velm-simpm)
target_include_directories(notify_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
