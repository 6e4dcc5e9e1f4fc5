# wire_bench starts velm-simpm from its own directory.
add_dependencies(wire_bench velm-simpm)
