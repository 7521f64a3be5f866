#include "Platform/RemoteComputation/Service/RequestHandling/LogMessageXml.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/PlainXml.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>

#include <boost/lexical_cast.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <regex>
#include <string>
#include <vector>

using namespace Kestrane;

namespace {

using TestXml::Document;
using TestXml::parsePlain;

LogMessage message(const std::string& text, LogMessage::Type type, const std::string& group,
                   int64_t timeStamp) {
    LogMessage result(text, type, group);
    result.setTimeStamp(timeStamp);
    return result;
}

// Writes the message and reads it back through a parsed element.
LogMessage roundTrip(const LogMessage& original) {
    Document document = parsePlain(LogMessageXml::toXml(original));
    return LogMessageXml::create(document->getDocumentElement());
}

LogMessage createFrom(const std::string& text) {
    Document document = parsePlain(text);
    return LogMessageXml::create(document->getDocumentElement());
}

void expectSame(const LogMessage& expected, const LogMessage& actual) {
    EXPECT_EQ(actual.text(), expected.text());
    EXPECT_EQ(actual.type(), expected.type());
    EXPECT_EQ(actual.getGroup(), expected.getGroup());
    EXPECT_EQ(actual.timeStamp(), expected.timeStamp());
}

} // namespace

TEST(LogMessageXmlTest, ElementIsOneLineWithAttributesInOrder) {
    EXPECT_EQ(LogMessageXml::toXml(message("Mesh ready", LogMessage::Warning, "mesher", 1700)),
              "<logMessage type=\"WARNING\" group=\"mesher\" timestamp=\"1700\">Mesh ready"
              "</logMessage>");
}

TEST(LogMessageXmlTest, GroupAndTextAreEscaped) {
    EXPECT_EQ(LogMessageXml::toXml(message("a < b & c", LogMessage::Info, "\"q\" & 'a'", 0)),
              "<logMessage type=\"INFO\" group=\"&quot;q&quot; &amp; &apos;a&apos;\" "
              "timestamp=\"0\">a &lt; b &amp; c</logMessage>");
}

TEST(LogMessageXmlTest, TextWithLessThanAndAmpersandSurvives) {
    const LogMessage original =
        message("if (a < b && c) x = <y>;", LogMessage::Error, "group <&>", 1234567890123);
    const std::string xml = LogMessageXml::toXml(original);
    EXPECT_EQ(xml.find("a < b"), std::string::npos) << xml;
    expectSame(original, roundTrip(original));
}

TEST(LogMessageXmlTest, NegativeTimeStampSurvives) {
    const LogMessage original = message("before the epoch", LogMessage::Debug, "g", -42);
    EXPECT_EQ(LogMessageXml::toXml(original),
              "<logMessage type=\"DEBUG\" group=\"g\" timestamp=\"-42\">before the epoch"
              "</logMessage>");
    expectSame(original, roundTrip(original));
}

TEST(LogMessageXmlTest, ExtremeTimeStampsSurvive) {
    const LogMessage low =
        message("low", LogMessage::Info, "g", std::numeric_limits<int64_t>::min());
    const LogMessage high =
        message("high", LogMessage::Info, "g", std::numeric_limits<int64_t>::max());
    expectSame(low, roundTrip(low));
    expectSame(high, roundTrip(high));
}

TEST(LogMessageXmlTest, EveryTypeSurvives) {
    for (LogMessage::Type type :
         {LogMessage::Info, LogMessage::Warning, LogMessage::Error, LogMessage::Debug}) {
        const LogMessage original = message("t", type, "g", 5);
        expectSame(original, roundTrip(original));
    }
}

TEST(LogMessageXmlTest, EmptyTextAndGroupSurvive) {
    const LogMessage original = message("", LogMessage::Info, "", 7);
    EXPECT_EQ(LogMessageXml::toXml(original),
              "<logMessage type=\"INFO\" group=\"\" timestamp=\"7\"></logMessage>");
    expectSame(original, roundTrip(original));
}

TEST(LogMessageXmlTest, ContainsErrorsOfEmptyVectorIsFalse) {
    EXPECT_FALSE(LogMessageXml::containsErrors({}));
}

TEST(LogMessageXmlTest, ContainsErrorsFindsTheErrorType) {
    std::vector<LogMessage> messages = {message("a", LogMessage::Info, "g", 1),
                                        message("b", LogMessage::Warning, "g", 2),
                                        message("c", LogMessage::Debug, "g", 3)};
    EXPECT_FALSE(LogMessageXml::containsErrors(messages));
    messages.push_back(message("d", LogMessage::Error, "g", 4));
    EXPECT_TRUE(LogMessageXml::containsErrors(messages));
    EXPECT_TRUE(LogMessageXml::containsErrors({message("only", LogMessage::Error, "g", 0)}));
}

TEST(LogMessageXmlTest, TwoMessagesHaveExactlyOneNewline) {
    const std::string xml = LogMessageXml::toXml(std::vector<LogMessage>{
        message("one", LogMessage::Info, "g", 1), message("two", LogMessage::Error, "h", 2)});
    EXPECT_EQ(std::count(xml.begin(), xml.end(), '\n'), 1);
    EXPECT_EQ(xml, "<logMessage type=\"INFO\" group=\"g\" timestamp=\"1\">one</logMessage>\n"
                   "<logMessage type=\"ERROR\" group=\"h\" timestamp=\"2\">two</logMessage>");
}

TEST(LogMessageXmlTest, VectorFormsInOrderWithoutTrailingNewline) {
    EXPECT_EQ(LogMessageXml::toXml(std::vector<LogMessage>{}), "");
    const LogMessage single = message("s", LogMessage::Warning, "g", 3);
    EXPECT_EQ(LogMessageXml::toXml(std::vector<LogMessage>{single}), LogMessageXml::toXml(single));
    const std::string three = LogMessageXml::toXml(std::vector<LogMessage>{
        message("1", LogMessage::Info, "g", 1), message("2", LogMessage::Info, "g", 2),
        message("3", LogMessage::Info, "g", 3)});
    EXPECT_EQ(std::count(three.begin(), three.end(), '\n'), 2);
    EXPECT_LT(three.find(">1<"), three.find(">2<"));
    EXPECT_LT(three.find(">2<"), three.find(">3<"));
    EXPECT_NE(three.back(), '\n');
}

TEST(LogMessageXmlTest, ElementIsValidInsideProgressUpdate) {
    // Hosts put these elements under realization and iteration, where the schema checks them.
    RequestXmlHelper::getInstance()->addSchema(StandardRequestSchema());
    const LogMessage original = message("x < y & z", LogMessage::Error, "solver & co", -9);
    const std::string document =
        "<KS_Reply " + RequestXmlHelper::getNamespaceDeclarations() +
        "><reply xsi:type=\"ProgressUpdate\"><realization id=\"1\"><status>running</status>" +
        LogMessageXml::toXml(original) + "</realization></reply></KS_Reply>";
    Document parsed(RequestXmlHelper::getInstance()->parse(document));
    ASSERT_TRUE(parsed);
    xercesc::DOMElement* reply = XmlUtils::getElement("reply", parsed->getDocumentElement());
    xercesc::DOMElement* realization = XmlUtils::getElement("realization", reply);
    xercesc::DOMElement* element = XmlUtils::getElement("logMessage", realization);
    ASSERT_NE(element, nullptr);
    expectSame(original, LogMessageXml::create(element));
}

TEST(LogMessageXmlTest, CreateReadsSignedTimeStamp) {
    EXPECT_EQ(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"+15\">t</logMessage>")
                  .timeStamp(),
              15);
    EXPECT_EQ(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"-15\">t</logMessage>")
                  .timeStamp(),
              -15);
}

TEST(LogMessageXmlTest, CreateWithNonNumericTimeStampThrows) {
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"soon\">t"
                            "</logMessage>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"12abc\">t"
                            "</logMessage>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"1.5\">t"
                            "</logMessage>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\" 12\">t"
                            "</logMessage>"),
                 boost::bad_lexical_cast);
}

TEST(LogMessageXmlTest, CreateWithEmptyTimeStampThrows) {
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" timestamp=\"\">t</logMessage>"),
                 boost::bad_lexical_cast);
}

TEST(LogMessageXmlTest, CreateWithoutTimeStampThrows) {
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\">t</logMessage>"),
                 boost::bad_lexical_cast);
}

TEST(LogMessageXmlTest, CreateWithTimeStampBeyondRangeThrows) {
    EXPECT_THROW(createFrom("<logMessage type=\"INFO\" group=\"g\" "
                            "timestamp=\"9223372036854775808\">t</logMessage>"),
                 boost::bad_lexical_cast);
}

TEST(LogMessageXmlTest, CreateWithMissingTypeAndGroup) {
    // A missing attribute reads as empty; an empty type is not a known type.
    const LogMessage read = createFrom("<logMessage timestamp=\"3\">text</logMessage>");
    EXPECT_EQ(read.type(), LogMessage::Info);
    EXPECT_EQ(read.getGroup(), "");
    EXPECT_EQ(read.text(), "text");
    EXPECT_EQ(read.timeStamp(), 3);
}

TEST(LogMessageXmlTest, GetCurrentTimeHasDayMonthYearForm) {
    const std::string now = LogMessageXml::getCurrentTime();
    ASSERT_TRUE(std::regex_match(now, std::regex("[0-9]{2}-[0-9]{2}-[0-9]{4} "
                                                 "[0-9]{2}:[0-9]{2}:[0-9]{2}")))
        << now;
    // Compare the date part with the local clock; a test run across midnight may differ once.
    const std::time_t seconds = std::time(nullptr);
    std::tm local{};
    localtime_r(&seconds, &local);
    EXPECT_EQ(std::stoi(now.substr(6, 4)), local.tm_year + 1900) << now;
    const int month = std::stoi(now.substr(3, 2));
    EXPECT_GE(month, 1);
    EXPECT_LE(month, 12);
}
