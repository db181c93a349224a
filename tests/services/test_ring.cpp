/* SPDX-License-Identifier: BSD-3-Clause
 * Ring manager: creation, lookup by local id, reuse of ids, destruction
 * with mbufs still inside, and many producers feeding one consumer.
 */
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_errno.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_ring.h"
#include "zorv_test_harness.h"

namespace {

/*
 * Threads started from the test inherit EAL's pinning of the main thread to
 * one CPU; let them run on every CPU so that they really run in parallel.
 */
void RunOnAllCpus()
{
	cpu_set_t set;
	CPU_ZERO(&set);
	long n = sysconf(_SC_NPROCESSORS_ONLN);
	for (long c = 0; c < n && c < CPU_SETSIZE; c++)
		CPU_SET(c, &set);
	pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

/* Destroys the rings a test created, whatever the test's outcome. */
class RingTest : public ::testing::Test {
protected:
	void TearDown() override
	{
		for (int id : ids_)
			zorv1_ring_destroy(id);
	}

	int Create(uint32_t size)
	{
		int id = zorv1_ring_create(size);
		if (id >= 0)
			ids_.insert(id);
		return id;
	}

	void Destroy(int id)
	{
		zorv1_ring_destroy(id);
		ids_.erase(id);
	}

	std::set<int> ids_;
};

TEST_F(RingTest, CreatedRingHoldsExactlyItsSizeWithManyProducersAndOneConsumer)
{
	int id = Create(512);
	ASSERT_GE(id, 0);
	ASSERT_LT(id, ZORV1_RING_MAX);

	struct rte_ring *r = zorv1_get_ring_by_local_id(id);
	ASSERT_NE(r, nullptr);
	EXPECT_EQ(rte_ring_get_capacity(r), 512u);
	EXPECT_EQ(rte_ring_count(r), 0u);
	EXPECT_EQ(rte_ring_get_prod_sync_type(r), RTE_RING_SYNC_MT);
	EXPECT_EQ(rte_ring_get_cons_sync_type(r), RTE_RING_SYNC_ST);
	EXPECT_EQ(std::string(r->name), "zorv1_ring_" + std::to_string(id));
	EXPECT_EQ(rte_ring_lookup(r->name), r);
}

TEST_F(RingTest, SizesNeedNotBePowersOfTwo)
{
	int id = Create(100);
	ASSERT_GE(id, 0);
	EXPECT_EQ(rte_ring_get_capacity(zorv1_get_ring_by_local_id(id)), 100u);
}

TEST_F(RingTest, InvalidSizeFails)
{
	EXPECT_EQ(zorv1_ring_create(0), -1);
	EXPECT_EQ(zorv1_ring_create(RTE_RING_SZ_MASK + 1u), -1);
}

TEST_F(RingTest, EachRingHasItsOwnIdAndDestroyedIdsAreReused)
{
	int a = Create(512);
	int b = Create(512);
	int c = Create(512);
	ASSERT_GE(a, 0);
	ASSERT_GE(b, 0);
	ASSERT_GE(c, 0);
	EXPECT_NE(a, b);
	EXPECT_NE(b, c);
	EXPECT_NE(a, c);
	EXPECT_NE(zorv1_get_ring_by_local_id(a), zorv1_get_ring_by_local_id(b));

	Destroy(b);
	EXPECT_EQ(zorv1_get_ring_by_local_id(b), nullptr);
	EXPECT_NE(zorv1_get_ring_by_local_id(a), nullptr);
	EXPECT_NE(zorv1_get_ring_by_local_id(c), nullptr);

	int d = Create(256);
	EXPECT_EQ(d, b) << "the freed id is handed out again";
	ASSERT_NE(zorv1_get_ring_by_local_id(d), nullptr);
	EXPECT_EQ(rte_ring_get_capacity(zorv1_get_ring_by_local_id(d)), 256u);
}

TEST_F(RingTest, InvalidIdsAreIgnoredAndFindNothing)
{
	EXPECT_EQ(zorv1_get_ring_by_local_id(-1), nullptr);
	EXPECT_EQ(zorv1_get_ring_by_local_id(ZORV1_RING_MAX), nullptr);
	EXPECT_EQ(zorv1_get_ring_by_local_id(ZORV1_RING_MAX - 1), nullptr);
	zorv1_ring_destroy(-1);
	zorv1_ring_destroy(ZORV1_RING_MAX);
	zorv1_ring_destroy(ZORV1_RING_MAX - 1);

	int id = Create(64);
	ASSERT_GE(id, 0);
	Destroy(id);
	zorv1_ring_destroy(id); /* a second destroy does nothing */
	EXPECT_EQ(zorv1_get_ring_by_local_id(id), nullptr);
}

TEST_F(RingTest, FailedCreationReturnsMinusOneLogsAndKeepsTheIdFree)
{
	int id = Create(64);
	ASSERT_GE(id, 0);
	Destroy(id);

	/* A foreign ring already holds the name the next ring would get. */
	std::string name = "zorv1_ring_" + std::to_string(id);
	struct rte_ring *squatter = rte_ring_create(name.c_str(), 64, SOCKET_ID_ANY, 0);
	ASSERT_NE(squatter, nullptr);
	{
		zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_ERR);
		EXPECT_EQ(zorv1_ring_create(512), -1);
		EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_ring_create",
						    "create ring " + name + " of 512 entries failed: " +
							    rte_strerror(EEXIST) + "\n"));
	}
	EXPECT_EQ(zorv1_get_ring_by_local_id(id), nullptr);
	rte_ring_free(squatter);

	EXPECT_EQ(Create(512), id) << "the id stayed free";
}

TEST_F(RingTest, DestroyFreesMbufsLeftInTheRing)
{
	zorv_test::MbufPool pool(63);
	ASSERT_NE(pool.get(), nullptr);
	int id = Create(512);
	ASSERT_GE(id, 0);
	struct rte_ring *r = zorv1_get_ring_by_local_id(id);

	/* Some single-segment, some chained: every segment must go back. */
	for (int i = 0; i < 10; i++) {
		struct rte_mbuf *m = rte_pktmbuf_alloc(pool);
		ASSERT_NE(m, nullptr);
		if (i % 3 == 0) {
			struct rte_mbuf *seg = rte_pktmbuf_alloc(pool);
			ASSERT_NE(seg, nullptr);
			ASSERT_EQ(rte_pktmbuf_chain(m, seg), 0);
		}
		ASSERT_EQ(rte_ring_enqueue(r, m), 0);
	}
	ASSERT_EQ(pool.InUse(), 14u);
	ASSERT_EQ(rte_ring_count(r), 10u);

	Destroy(id);
	EXPECT_EQ(pool.InUse(), 0u);
	EXPECT_EQ(rte_ring_lookup(("zorv1_ring_" + std::to_string(id)).c_str()), nullptr)
		<< "the ring itself is freed too";
}

TEST_F(RingTest, TwoProducersAndOneConsumerLoseNothing)
{
	int id = Create(512);
	ASSERT_GE(id, 0);
	struct rte_ring *r = zorv1_get_ring_by_local_id(id);
	constexpr uintptr_t kPerProducer = 100000;
	constexpr uintptr_t kTotal = 2 * kPerProducer;
	std::atomic<bool> give_up{false};

	auto produce = [r, &give_up](uintptr_t base) {
		RunOnAllCpus();
		for (uintptr_t i = 0; i < kPerProducer; i++) {
			void *obj = reinterpret_cast<void *>(base + i);
			while (rte_ring_enqueue(r, obj) != 0) {
				if (give_up)
					return;
				std::this_thread::yield();
			}
		}
	};
	std::thread p1(produce, uintptr_t{1});
	std::thread p2(produce, uintptr_t{1} + kPerProducer);

	std::vector<uint8_t> seen(kTotal + 1, 0);
	uintptr_t got = 0, dups = 0, strays = 0, reordered = 0;
	uintptr_t next1 = 1, next2 = 1 + kPerProducer;
	/* Lost entries would leave the count short for ever: bound the wait. */
	auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
	while (got < kTotal && std::chrono::steady_clock::now() < deadline) {
		void *objs[32];
		unsigned n = rte_ring_dequeue_burst(r, objs, 32, nullptr);
		for (unsigned i = 0; i < n; i++) {
			uintptr_t v = reinterpret_cast<uintptr_t>(objs[i]);
			if (v < 1 || v > kTotal) {
				strays++;
				continue;
			}
			if (seen[v]++)
				dups++;
			/* Each producer's objects come out in its own order. */
			uintptr_t &next = v <= kPerProducer ? next1 : next2;
			if (v != next)
				reordered++;
			next = v + 1;
		}
		got += n;
	}
	give_up = true;
	p1.join();
	p2.join();

	EXPECT_EQ(got, kTotal);
	EXPECT_EQ(strays, 0u);
	EXPECT_EQ(dups, 0u);
	EXPECT_EQ(reordered, 0u);
	EXPECT_EQ(rte_ring_count(r), 0u);
}

} // namespace
