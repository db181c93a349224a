# A hostile or stuck vhost-user peer (hostile_peer.py: a header without its
# payload, part of a header, replies never read, a flood of connections,
# garbage) never holds the application: stop, close and detach of its port
# finish within 1 s, the interface serves a good peer again afterwards, and
# another socket of the process is served during the flood.
add_test(NAME e2e_hostile_peer
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_hostile_peer.py
          --lib $<TARGET_FILE:rte_net_zorv1> --bound 1.0)
set_tests_properties(e2e_hostile_peer PROPERTIES LABELS e2e TIMEOUT 600
  RESOURCE_LOCK zorv_cpus)
