/* SPDX-License-Identifier: BSD-3-Clause
 * The P4 helper routines: the short pause, the rounding of dump lengths to
 * whole 16-byte lines, and the ones'-complement checksum.
 */
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "zorv_p4/zorv_p4_utils.h"
#include "zorv_test_harness.h"

namespace {

/* Textbook ones'-complement sum with a 64-bit accumulator, for comparison. */
uint16_t ReferenceChecksum(const uint8_t *p, size_t len)
{
	uint64_t sum = 0;
	size_t i = 0;
	for (; i + 1 < len; i += 2) {
		uint16_t w;
		std::memcpy(&w, p + i, 2);
		sum += w;
	}
	if (i < len) {
		/* The last byte as a word padded with a zero byte, read in host order. */
		uint8_t pad[2] = {p[i], 0};
		uint16_t w;
		std::memcpy(&w, pad, 2);
		sum += w;
	}
	while (sum >> 16)
		sum = (sum & 0xFFFF) + (sum >> 16);
	return static_cast<uint16_t>(~sum);
}

} // namespace

/* ------------------------------------------------------------ delay */

TEST(P4Delay, SleepsAtLeastTenMicroseconds)
{
	for (int i = 0; i < 5; i++) {
		const auto t0 = std::chrono::steady_clock::now();
		zorv_p4_delay();
		const auto elapsed = std::chrono::steady_clock::now() - t0;
		EXPECT_GE(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count(), 10000)
			<< "round " << i;
	}
}

/* ------------------------------------------------- dump length */

TEST(P4HexDumpLength, ListedLengths)
{
	EXPECT_EQ(zorv_p4_hex_dump_length_get(0), 96);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(1), 16);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(16), 16);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(17), 32);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(96), 96);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(97), 112);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(112), 112);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(113), 96);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(4096), 96);
}

TEST(P4HexDumpLength, RoundsUpToWholeLinesFromOneTo112)
{
	for (uint32_t len = 1; len <= 112; len++) {
		const int lines = static_cast<int>((len + 15) / 16);
		EXPECT_EQ(zorv_p4_hex_dump_length_get(len), 16 * lines) << "len " << len;
	}
}

TEST(P4HexDumpLength, ZeroAndEverythingAbove112FallBackTo96)
{
	EXPECT_EQ(zorv_p4_hex_dump_length_get(0), 96);
	for (uint32_t len = 113; len <= 2048; len++)
		EXPECT_EQ(zorv_p4_hex_dump_length_get(len), 96) << "len " << len;
	EXPECT_EQ(zorv_p4_hex_dump_length_get(65535), 96);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(0x80000000u), 96);
	EXPECT_EQ(zorv_p4_hex_dump_length_get(UINT32_MAX), 96);
}

/* ---------------------------------------------------- checksum */

TEST(P4Checksum, EmptyBufferIsAllOnes)
{
	uint8_t buf[4] = {0x12, 0x34, 0x56, 0x78};
	EXPECT_EQ(zorv_p4_chksum(buf, 0), 0xFFFF);
}

TEST(P4Checksum, AllOnesWordGivesZero)
{
	uint8_t buf[2] = {0xFF, 0xFF};
	EXPECT_EQ(zorv_p4_chksum(buf, 2), 0x0000);
}

TEST(P4Checksum, NegativeLengthSumsNothing)
{
	uint8_t buf[8];
	std::memset(buf, 0xA5, sizeof(buf));
	EXPECT_EQ(zorv_p4_chksum(buf, -1), 0xFFFF);
	EXPECT_EQ(zorv_p4_chksum(buf, -2), 0xFFFF);
	EXPECT_EQ(zorv_p4_chksum(buf, -8), 0xFFFF);
}

TEST(P4Checksum, SingleByteIsTheLowByteOfAFinalWord)
{
	uint8_t one[1] = {0x01};
	EXPECT_EQ(zorv_p4_chksum(one, 1), 0xFFFE);
	uint8_t high[1] = {0xAB};
	EXPECT_EQ(zorv_p4_chksum(high, 1), static_cast<uint16_t>(~0x00ABu));
}

TEST(P4Checksum, OddLengthAddsLastByteAsLowByte)
{
	/* Words read in host order (little endian here): 0x3412, then 0x56 alone. */
	uint8_t odd[3] = {0x12, 0x34, 0x56};
	EXPECT_EQ(zorv_p4_chksum(odd, 3), static_cast<uint16_t>(~(0x3412u + 0x0056u)));
	/* The same as the buffer padded with a zero byte. */
	uint8_t padded[4] = {0x12, 0x34, 0x56, 0x00};
	EXPECT_EQ(zorv_p4_chksum(odd, 3), zorv_p4_chksum(padded, 4));
	/* And not the byte in the high half. */
	EXPECT_NE(zorv_p4_chksum(odd, 3), static_cast<uint16_t>(~(0x3412u + 0x5600u)));
}

TEST(P4Checksum, OnlyLenBytesAreRead)
{
	uint8_t buf[6] = {0x10, 0x20, 0x30, 0x40, 0xEE, 0xEE};
	uint8_t exact[4] = {0x10, 0x20, 0x30, 0x40};
	EXPECT_EQ(zorv_p4_chksum(buf, 4), zorv_p4_chksum(exact, 4));
	EXPECT_NE(zorv_p4_chksum(buf, 4), zorv_p4_chksum(buf, 6));
}

TEST(P4Checksum, RfcExampleInHostOrder)
{
	/* The classic example: big-endian sum 0xddf2, checksum 0x220d; read in
	 * little-endian host order both come out byte-swapped. */
	uint8_t buf[8] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
	EXPECT_EQ(zorv_p4_chksum(buf, 8), 0x0d22);
}

TEST(P4Checksum, SecondCarryIsAddedBack)
{
	/* 0xFFFF + 0xFFFF + 0x0001 = 0x1FFFF: the first fold gives 0x10000, whose
	 * carry must be added once more. */
	uint8_t buf[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00};
	EXPECT_EQ(zorv_p4_chksum(buf, 6), 0xFFFE);
}

TEST(P4Checksum, UnalignedBuffer)
{
	alignas(8) uint8_t storage[12] = {0, 0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
	EXPECT_EQ(zorv_p4_chksum(storage + 1, 8), 0x0d22);
}

TEST(P4Checksum, MatchesTextbookSumOnRandomBuffers)
{
	std::mt19937 rng(12345);
	std::vector<uint8_t> buf(1501);
	for (auto &b : buf)
		b = static_cast<uint8_t>(rng());
	for (size_t len = 0; len <= buf.size(); len += (len < 70 ? 1 : 37))
		EXPECT_EQ(zorv_p4_chksum(buf.data(), static_cast<int>(len)),
			  ReferenceChecksum(buf.data(), len))
			<< "len " << len;
}

TEST(P4Checksum, InsertedChecksumVerifiesToZero)
{
	/* A buffer that carries its own checksum sums to all ones. */
	uint8_t buf[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
			   0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
	uint16_t c = zorv_p4_chksum(buf, 20);
	std::memcpy(&buf[10], &c, 2);
	EXPECT_EQ(zorv_p4_chksum(buf, 20), 0x0000);
}

TEST(P4Checksum, ThirtyTwoBitSumWrapsFrom65538AllOnesWords)
{
	/* 65537 words of 0xFFFF still fit in 32 bits: the sum folds to all ones. */
	std::vector<uint8_t> ones(2 * 65538, 0xFF);
	EXPECT_EQ(zorv_p4_chksum(ones.data(), 2 * 65537), 0x0000);
	/* One more word overflows the 32-bit sum (2^32 + 0xFFFE wraps to 0xFFFE). */
	EXPECT_EQ(zorv_p4_chksum(ones.data(), 2 * 65538), 0x0001);
}
