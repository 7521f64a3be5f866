#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <gtest/gtest.h>

#include <memory>

using namespace Kestrane;

namespace {

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

class JobIdTestSchema : public AbstractRequestSchema {
public:
    JobIdTestSchema() {
        m_schemaText += R"(
  <!-- JobIdTestSchema -->
  <xs:complexType name="JobIdTestRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="jobId" type="ksrq:KSJobId"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)";
    }
};

std::string requestWith(const std::string& jobIdXml) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Request " +
           RequestXmlHelper::getNamespaceDeclarations() +
           ">\n<request xsi:type=\"JobIdTestRequest\" id=\"" + UniqueID::generateId() + "\">\n" +
           jobIdXml + "</request>\n</KS_Request>\n";
}

// Parses the element with validation and reads it back.
GenericJobId throughSchema(const GenericJobId& id) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(JobIdTestSchema());
    Document document(helper->parse(requestWith(id.toXml("   ", "   "))));
    xercesc::DOMElement* request = XmlUtils::getElement("request", document->getDocumentElement());
    return GenericJobId(XmlUtils::getElement("jobId", request));
}

} // namespace

TEST(GenericJobIdTest, DefaultIsInvalid) {
    GenericJobId id;
    EXPECT_FALSE(id.isValid());
    EXPECT_EQ(id.toString(), "");
    EXPECT_EQ(id.toXml("", "  "), "");
    std::vector<std::string> args{"-c", "x"};
    id.toCmd(args);
    EXPECT_EQ(args, (std::vector<std::string>{"-c", "x"}));
}

TEST(GenericJobIdTest, Tag) {
    EXPECT_EQ(GenericJobId::c_tag, "-jobId");
}

TEST(GenericJobIdTest, ValidityFollowsTheUid) {
    std::string uid = UniqueID::generateId();
    EXPECT_TRUE(GenericJobId(uid, "").isValid());
    EXPECT_TRUE(GenericJobId(UniqueID::c_nullId, "n").isValid());
    EXPECT_FALSE(GenericJobId("abcdef0123456789-0123456789ABCDEF-0123456789ABCDEF", "").isValid());
    EXPECT_FALSE(GenericJobId(uid.substr(1), "name").isValid());
    EXPECT_FALSE(GenericJobId("", "name").isValid());
    // An invalid id writes nothing, whatever its name.
    EXPECT_EQ(GenericJobId("bad", "name").toString(), "");
}

TEST(GenericJobIdTest, ToStringAndBack) {
    std::string uid = UniqueID::generateId();
    GenericJobId plain(uid, "");
    EXPECT_EQ(plain.toString(), uid);
    GenericJobId named(uid, "job.with.dots");
    EXPECT_EQ(named.toString(), uid + ".job.with.dots");
    EXPECT_EQ(named.getUid(), uid);
    EXPECT_EQ(named.getName(), "job.with.dots");

    for (const GenericJobId& id : {plain, named}) {
        std::string text = id.toString();
        std::string message = "untouched";
        GenericJobId back = GenericJobId::fromString(text, message);
        EXPECT_TRUE(back.isValid());
        EXPECT_EQ(back, id);
        EXPECT_EQ(message, "untouched");
    }
}

TEST(GenericJobIdTest, ToStringNeverHoldsAColon) {
    GenericJobId id(UniqueID::generateId(), "host:1234:x");
    std::string text = id.toString();
    EXPECT_EQ(text.find(':'), std::string::npos) << text;
    std::string message;
    GenericJobId back = GenericJobId::fromString(text, message);
    EXPECT_TRUE(back.isValid());
    EXPECT_EQ(back.getUid(), id.getUid());
    EXPECT_EQ(back.getName(), "host_1234_x");
}

TEST(GenericJobIdTest, FromStringRejectsBadText) {
    for (std::string text :
         {std::string(""), std::string("nonsense"), UniqueID::generateId().substr(0, 49) + ".name",
          "." + UniqueID::generateId()}) {
        std::string message;
        GenericJobId id = GenericJobId::fromString(text, message);
        EXPECT_FALSE(id.isValid()) << text;
        EXPECT_FALSE(message.empty()) << text;
        EXPECT_EQ(id.toString(), "");
    }
}

TEST(GenericJobIdTest, ToXmlLayout) {
    std::string uid = UniqueID::generateId();
    EXPECT_EQ(GenericJobId(uid, "a<b").toXml("  ", "    "),
              "  <jobId>\n      <uid>" + uid + "</uid>\n      <name>a&lt;b</name>\n  </jobId>\n");
    EXPECT_EQ(GenericJobId(uid, "").toXml("", "\t"),
              "<jobId>\n\t<uid>" + uid + "</uid>\n</jobId>\n");
}

TEST(GenericJobIdTest, XmlRoundTripValidates) {
    GenericJobId named(UniqueID::generateId(), "name & \"quotes\"");
    EXPECT_EQ(throughSchema(named), named);
    GenericJobId plain(UniqueID::generateId(), "");
    EXPECT_EQ(throughSchema(plain), plain);
}

TEST(GenericJobIdTest, SchemaRejectsBadUid) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(JobIdTestSchema());
    EXPECT_THROW(Document(helper->parse(requestWith("<jobId><uid>x</uid></jobId>\n"))),
                 KsExceptionNested);
    EXPECT_THROW(Document(helper->parse(requestWith("<jobId><name>n</name></jobId>\n"))),
                 KsExceptionNested);
}

TEST(GenericJobIdTest, NullElementGivesInvalid) {
    EXPECT_FALSE(GenericJobId(static_cast<const xercesc::DOMElement*>(nullptr)).isValid());
}

TEST(GenericJobIdTest, ToCmdAppendsTagAndText) {
    GenericJobId id(UniqueID::generateId(), "run7");
    std::vector<std::string> args{"program", "-c", "h:1:x"};
    id.toCmd(args);
    ASSERT_EQ(args.size(), 5u);
    EXPECT_EQ(args[3], "-jobId");
    EXPECT_EQ(args[4], id.toString());
}
