# The management agent's configuration against real mosquitto brokers on
# loopback: a password file, and TLS with certificates the scenario makes
# with openssl. Without openssl or mosquitto_passwd it prints "SKIP: <why>"
# and exits with 77.

add_test(NAME e2e_agent_config
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_agent_config.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(e2e_agent_config PROPERTIES LABELS e2e TIMEOUT 300
  SKIP_RETURN_CODE 77)
