# The port's way into DPDK and out to the family's other modules, each
# binary with the fake family services behind the driver: registration,
# probe and remove; port creation; the connection entry points; the
# diagnostics operations; and the new port as an application sees it.
zorv_unit_test(test_vdev_probe unit/test_probe.cpp)
zorv_unit_test(test_vdev_create unit/test_create.cpp)
zorv_unit_test(test_vdev_connection unit/test_connection.cpp)
zorv_unit_test(test_vdev_diag unit/test_diag.cpp)
zorv_unit_test(test_vdev_port_appearance unit/test_port_appearance.cpp)
