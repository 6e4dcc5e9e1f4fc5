add_dependencies(velmd_bench velm-simd)
