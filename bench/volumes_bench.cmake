# volumes_bench starts velm-simpm from its own directory.
add_dependencies(volumes_bench velm-simpm)
