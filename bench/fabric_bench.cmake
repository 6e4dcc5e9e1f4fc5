# fabric_bench builds its sysfs tree with the stand-in's library.
target_link_libraries(fabric_bench PRIVATE velm_simfabric)
