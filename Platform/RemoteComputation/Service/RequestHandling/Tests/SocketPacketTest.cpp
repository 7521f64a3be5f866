#include "LoopbackPair.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ArchSocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

using namespace Kestrane;
using Kestrane::Testing::LoopbackPair;

TEST(SocketPacketTest, PingIsEightBytesOnTheWire) {
    LoopbackPair pair;
    SocketPacket::send("C", "PING", pair.client, "peer");
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "C 4 PING");
}

TEST(SocketPacketTest, CloseConnectionBytes) {
    LoopbackPair pair;
    SocketPacket packet("C", "CLOSE_CONNECTION", false);
    EXPECT_TRUE(packet.send(pair.client, "peer"));
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "C 16 CLOSE_CONNECTION");
}

TEST(SocketPacketTest, PacketsFollowEachOtherWithoutSeparator) {
    LoopbackPair pair;
    SocketPacket::send("RQ", "<x/>", pair.client, "peer");
    SocketPacket::send("C", "CLOSE_CONNECTION", pair.client, "peer");
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "RQ 4 <x/>C 16 CLOSE_CONNECTION");
}

TEST(SocketPacketTest, ReceiveReadsTypeLengthAndPayload) {
    LoopbackPair pair;
    pair.writeRaw(pair.client, "RP 11 hello worldC 4 PONG");
    auto first = SocketPacket::receive(*pair.server, "peer");
    EXPECT_EQ(first->getType(), "RP");
    EXPECT_EQ(*first->getData(), "hello world");
    EXPECT_TRUE(first->cachePacket());
    auto second = SocketPacket::receive(*pair.server, "peer");
    EXPECT_EQ(second->getType(), "C");
    EXPECT_EQ(*second->getData(), "PONG");
    EXPECT_EQ(second->toString(), "C PONG");
}

TEST(SocketPacketTest, EmptyCommandWithSecondSpaceIsValid) {
    LoopbackPair pair;
    pair.writeRaw(pair.client, "C 0 C 4 PING");
    auto empty = SocketPacket::receive(*pair.server, "peer");
    EXPECT_EQ(empty->getType(), "C");
    EXPECT_EQ(*empty->getData(), "");
    EXPECT_EQ(*SocketPacket::receive(*pair.server, "peer")->getData(), "PING");
}

TEST(SocketPacketTest, SendingEmptyDataWritesZeroLength) {
    LoopbackPair pair;
    SocketPacket::send("C", "", pair.client, "peer");
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "C 0 ");
}

TEST(SocketPacketTest, PayloadOf9999CharactersIsLoggedWhole) {
    LogCapture capture;
    LoopbackPair pair;
    std::string data(9999, 'x');
    SocketPacket::send("RQ", data, pair.client, "peer");
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "SEND peer - RQ " + data));
    SocketPacket::receive(*pair.server, "client");
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "RECV client - RQ " + data));
}

TEST(SocketPacketTest, PayloadOf10000CharactersIsLoggedCut) {
    LogCapture capture;
    LoopbackPair pair;
    std::string data(10000, 'y');
    data[9999] = 'z';
    SocketPacket::send("RQ", data, pair.client, "peer");
    std::string cut = "SEND peer - RQ " + data.substr(0, 10000) + "...";
    EXPECT_TRUE(capture.contains(LogLevel::Debug, cut));
    std::string longer(20000, 'q');
    SocketPacket::send("RQ", longer, pair.client, "peer");
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "SEND peer - RQ " + longer.substr(0, 10000) + "..."));
    EXPECT_EQ(SocketPacket::loggedData(std::string(10000, 'a')), std::string(10000, 'a') + "...");
    EXPECT_EQ(SocketPacket::loggedData(std::string(9999, 'a')), std::string(9999, 'a'));
}

TEST(SocketPacketTest, MinusOneAsksFor4294967295Bytes) {
    EXPECT_EQ(SocketPacket::parseLength("-1"), 4294967295u);
    EXPECT_EQ(SocketPacket::parseLength("+7"), 7u);
    EXPECT_EQ(SocketPacket::parseLength("-2"), 4294967294u);
    // The peer sends three bytes and closes: the packet is delivered with what came.
    LoopbackPair pair;
    pair.writeRaw(pair.client, "C -1 abc");
    pair.closeClientWrite();
    auto packet = SocketPacket::receive(*pair.server, "peer");
    EXPECT_EQ(*packet->getData(), "abc");
}

TEST(SocketPacketTest, LengthThatIsNoNumberThrowsBadLexicalCast) {
    EXPECT_THROW(SocketPacket::parseLength(""), boost::bad_lexical_cast);
    EXPECT_THROW(SocketPacket::parseLength("abc"), boost::bad_lexical_cast);
    EXPECT_THROW(SocketPacket::parseLength("12a"), boost::bad_lexical_cast);
    EXPECT_THROW(SocketPacket::parseLength("4294967296"), boost::bad_lexical_cast);
    LoopbackPair pair;
    pair.writeRaw(pair.client, "C x2 PING");
    try {
        SocketPacket::receive(*pair.server, "peer");
        FAIL() << "no exception";
    } catch (const boost::bad_lexical_cast& e) {
        EXPECT_STREQ(e.what(),
                     "bad lexical cast: source type value could not be interpreted as target");
    }
}

TEST(SocketPacketTest, PeerClosedInsideTheHeaderThrows) {
    LoopbackPair pair;
    pair.writeRaw(pair.client, "RQ");
    pair.closeClientWrite();
    EXPECT_THROW(SocketPacket::receive(*pair.server, "peer"), boost::bad_lexical_cast);
}

TEST(SocketPacketTest, PeerClosedBeforeAnythingThrows) {
    LoopbackPair pair;
    pair.closeClientWrite();
    EXPECT_THROW(SocketPacket::receive(*pair.server, "peer"), boost::bad_lexical_cast);
}

TEST(SocketPacketTest, NulInPayloadIsCutByTheWritersLength) {
    LoopbackPair pair;
    std::string data("ab\0cd", 5);
    SocketPacket::send("C", data, pair.client, "peer");
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "C 2 ab");
}

TEST(SocketPacketTest, NulInReceivedPayloadIsCutByTheReader) {
    LoopbackPair pair;
    pair.writeRaw(pair.client, std::string("C 5 ab\0cdC 4 PING", 17));
    EXPECT_EQ(*SocketPacket::receive(*pair.server, "peer")->getData(), "ab");
    EXPECT_EQ(*SocketPacket::receive(*pair.server, "peer")->getData(), "PING");
}

TEST(SocketPacketTest, SharedDataIsNotCopied) {
    auto xml = std::make_shared<std::string>("<a/>");
    SocketPacket packet("RQ", xml, true);
    EXPECT_EQ(packet.getData().get(), xml.get());
}

TEST(SocketPacketTest, LargePayloadArrivesWhole) {
    LoopbackPair pair;
    std::string data(3 * 1024 * 1024 + 17, 'r');
    std::thread writer([&] { SocketPacket::send("RP", data, pair.client, "peer"); });
    auto packet = SocketPacket::receive(*pair.server, "peer");
    writer.join();
    EXPECT_EQ(packet->getData()->size(), data.size());
    EXPECT_EQ(*packet->getData(), data);
}

TEST(SocketPacketTest, ReceiveCloseConnection) {
    LogCapture capture;
    LoopbackPair pair;
    pair.writeRaw(pair.client, "C 16 CLOSE_CONNECTIONRP 16 CLOSE_CONNECTIONC 4 PING");
    EXPECT_TRUE(SocketPacket::receiveCloseConnection(*pair.server, "peer"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Waiting for CLOSE_CONNECTION..."));
    EXPECT_FALSE(SocketPacket::receiveCloseConnection(*pair.server, "peer"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Expecting type C, notRP"));
    EXPECT_FALSE(SocketPacket::receiveCloseConnection(*pair.server, "peer"));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Expecting CLOSE_CONNECTION, not PING"));
}

TEST(BinarySocketPacketTest, RawBlockFollowsWithoutFraming) {
    LogCapture capture;
    LoopbackPair pair;
    char block[] = {'\x00', '\x01', 'A', '\xff', ' '};
    BinarySocketPacket packet(block, sizeof(block), true);
    EXPECT_TRUE(packet.send(pair.client, "peer"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "SEND peer - BINARY size = 5"));
    SocketPacket::send("C", "PING", pair.client, "peer");
    auto received = BinarySocketPacket::receive(5, *pair.server, "client");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "RECV client - BINARY dataSize=5"));
    ASSERT_EQ(received->getSize(), 5u);
    EXPECT_EQ(std::memcmp(received->getData(), block, 5), 0);
    EXPECT_TRUE(received->cachePacket());
    EXPECT_EQ(*SocketPacket::receive(*pair.server, "client")->getData(), "PING");
    std::free(received->getData()); // the caller takes the block over
    EXPECT_EQ(block[2], 'A');       // the sender's block is left alone
}

TEST(BinarySocketPacketTest, BlockCutShortThrowsInsteadOfBecomingAPacket) {
    LoopbackPair pair;
    pair.writeRaw(pair.client, "0123456789");
    pair.closeClientWrite();
    try {
        BinarySocketPacket::receive(1000, *pair.server, "peer");
        FAIL() << "a block of 10 bytes passed for one of 1000";
    } catch (const Computing::Error& e) {
        EXPECT_STREQ(e.what(), "receive of a block of 1000 bytes from peer: the connection ended "
                               "after fewer than 1000 bytes");
    }
}

TEST(BinarySocketPacketTest, ClaimedSizeOfFourGigabytesCostsOnlyWhatArrives) {
    // A 60-byte command may claim 4 GB: the reader must neither reserve that nor keep the
    // few bytes that came as a block.
    LoopbackPair pair;
    pair.writeRaw(pair.client, std::string(3 << 20, 'x'));
    pair.closeClientWrite();
    try {
        BinarySocketPacket::receive(4294967295ul, *pair.server, "peer");
        FAIL() << "a block of 3 MB passed for one of 4 GB";
    } catch (const Computing::Error& e) {
        EXPECT_NE(std::string(e.what()).find("receive of a block of 4294967295 bytes from peer"),
                  std::string::npos)
            << e.what();
    }
}

TEST(BinarySocketPacketTest, LargeBlockArrivesWholeAcrossGrowthSteps) {
    LoopbackPair pair;
    std::string block(5 * (1 << 20) + 17, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 7 + i / 4096);
    std::thread writer([&] {
        pair.writeRaw(pair.client, block);
        SocketPacket::send("C", "PING", pair.client, "peer");
    });
    auto received = BinarySocketPacket::receive(block.size(), *pair.server, "peer");
    writer.join();
    ASSERT_EQ(received->getSize(), block.size());
    EXPECT_EQ(std::memcmp(received->getData(), block.data(), block.size()), 0);
    EXPECT_EQ(*SocketPacket::receive(*pair.server, "peer")->getData(), "PING");
    std::free(received->getData());
}

TEST(BinarySocketPacketTest, AKeptLargeBlockTakesTheWholeBlockAndGoesBackOnFailure) {
    LargeBlockCache::clear();
    const std::size_t size = 6u << 20;
    void* kept = std::malloc(size);
    LargeBlockCache::release(kept);
    LoopbackPair pair;
    std::string block(size, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 7);
    std::thread writer([&] { pair.writeRaw(pair.client, block); });
    auto received = BinarySocketPacket::receive(block.size(), *pair.server, "peer");
    writer.join();
    EXPECT_EQ(static_cast<void*>(received->getData()), kept);
    ASSERT_EQ(received->getSize(), block.size());
    EXPECT_EQ(std::memcmp(received->getData(), block.data(), block.size()), 0);
    EXPECT_EQ(LargeBlockCache::keptCount(), 0u);

    // Cut short: the block goes back to be kept, not to the caller.
    LargeBlockCache::release(received->getData());
    pair.writeRaw(pair.client, "0123456789");
    pair.closeClientWrite();
    try {
        BinarySocketPacket::receive(size, *pair.server, "peer");
        FAIL() << "a block of 10 bytes passed for one of " << size;
    } catch (const Computing::Error& e) {
        EXPECT_STREQ(e.what(), ("receive of a block of " + std::to_string(size) +
                                " bytes from peer: the connection ended after fewer than " +
                                std::to_string(size) + " bytes")
                                   .c_str());
    }
    EXPECT_EQ(LargeBlockCache::keptCount(), 1u);
    LargeBlockCache::clear();
}

TEST(BinarySocketPacketTest, ToStringNamesSizeAndAddress) {
    char block[4] = {};
    BinarySocketPacket binary(block, 4, false);
    std::ostringstream address;
    address << std::hex << reinterpret_cast<uintptr_t>(block);
    EXPECT_EQ(binary.toString(), "BINARY dataSize=4, data=0x" + address.str());
    ArchSocketPacket arch(block, 4, false);
    EXPECT_EQ(arch.toString(), "ARCH dataSize=4, data=0x" + address.str());
}

TEST(ArchSocketPacketTest, SendReleasesTheBlockOnce) {
    LoopbackPair pair;
    char* block = static_cast<char*>(std::malloc(3));
    std::memcpy(block, "xyz", 3);
    ArchSocketPacket packet(block, 3, true);
    EXPECT_TRUE(packet.send(pair.client, "peer"));
    EXPECT_EQ(packet.getData(), nullptr);
    pair.closeClientWrite();
    EXPECT_EQ(LoopbackPair::readAll(*pair.server), "xyz");
}

TEST(ArchSocketPacketTest, UnsentBlockStaysWithItsOwner) {
    char* block = static_cast<char*>(std::malloc(3));
    { ArchSocketPacket packet(block, 3, true); }
    block[0] = 'k'; // still ours: writing and reading it is no use after free
    EXPECT_EQ(block[0], 'k');
    std::free(block);
}
