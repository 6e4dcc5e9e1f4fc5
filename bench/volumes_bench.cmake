# volumes_bench starts velm-simpm from its own directory.
add_dependencies(volumes_bench velm-simpm)
# The benchmark lays out the same volume text the config tests use.
target_include_directories(volumes_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests)
