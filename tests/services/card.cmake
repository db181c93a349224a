# Tests of the emulated card's transport: the driver and the real services in
# one process, with DPDK's virtio-user as the peer on the card's vhost-user
# socket.
zorv_service_test(test_card services/test_card.cpp)
