# A Linux guest in QEMU (TCG) as the port's peer: the guest kernel of
# linux-image-cloud-amd64 with the initramfs that scripts/vm/build-initramfs.sh
# builds into <build>/vm at set-up. Each case boots its own guest; one at a
# time (fixed namespace and TAP names, and both CPUs are busy). A machine
# without QEMU or the guest prints "SKIP: <why>" and exits 77.
foreach(zorv_vm_case basic mq offload reboot kill restart memtable)
  add_test(NAME e2e_vm_${zorv_vm_case}
    COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_vm.py
            --lib $<TARGET_FILE:rte_net_zorv1> --build ${CMAKE_BINARY_DIR}
            --case ${zorv_vm_case})
  set_tests_properties(e2e_vm_${zorv_vm_case} PROPERTIES LABELS "e2e;vm" TIMEOUT 600
    SKIP_RETURN_CODE 77 RESOURCE_LOCK "zorv_cpus;zorv_vm")
endforeach()
