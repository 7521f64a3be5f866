#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
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

class HostInfoTestSchema : public AbstractRequestSchema {
public:
    HostInfoTestSchema() {
        m_schemaText += R"(
  <!-- HostInfoTestSchema -->
  <xs:complexType name="HostInfoTestReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="requestHost" type="ksrq:HostInfo"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)";
    }
};

// Wraps the element into a reply, parses it with validation and reads it back.
HostInfo throughSchema(const HostInfo& host) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(HostInfoTestSchema());
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
                       RequestXmlHelper::getNamespaceDeclarations() +
                       ">\n  <reply xsi:type=\"HostInfoTestReply\" requestId=\"" +
                       UniqueID::generateId() + "\" >\n" +
                       host.toXmlString("requestHost", "    ", "  ") + "  </reply>\n</KS_Reply>\n";
    Document document(helper->parse(text));
    xercesc::DOMElement* reply = XmlUtils::getElement("reply", document->getDocumentElement());
    return HostInfo(XmlUtils::getElement("requestHost", reply));
}

void expectSame(const HostInfo& actual, const HostInfo& expected) {
    EXPECT_EQ(actual.getName(), expected.getName());
    EXPECT_EQ(actual.getIp(), expected.getIp());
    EXPECT_EQ(actual.getRequestServerPort(), expected.getRequestServerPort());
    EXPECT_EQ(actual.getPublisherPort(), expected.getPublisherPort());
}

} // namespace

TEST(HostInfoTest, EmptyByDefault) {
    HostInfo host;
    EXPECT_EQ(host.getName(), "");
    EXPECT_EQ(host.getIp(), "");
    EXPECT_EQ(host.getIpOrName(), "");
    EXPECT_FALSE(host.hasNameOrIp());
    EXPECT_EQ(host.getRequestServerPort(), -1);
    EXPECT_EQ(host.getPublisherPort(), -1);
    EXPECT_FALSE(host.hasRequestServerPort());
    EXPECT_FALSE(host.hasPublisherPort());
}

TEST(HostInfoTest, SetIpOrNameSortsAddressesFromNames) {
    HostInfo host;
    host.setIpOrName("node17.cluster");
    EXPECT_EQ(host.getName(), "node17.cluster");
    EXPECT_EQ(host.getIp(), "");
    EXPECT_EQ(host.getIpOrName(), "node17.cluster");
    host.setIpOrName("192.168.1.20");
    EXPECT_EQ(host.getIp(), "192.168.1.20");
    EXPECT_EQ(host.getName(), "node17.cluster");
    EXPECT_EQ(host.getIpOrName(), "192.168.1.20");

    HostInfo v6;
    v6.setIpOrName("fe80::1");
    EXPECT_EQ(v6.getIp(), "fe80::1");
    v6.setIpOrName("::1");
    EXPECT_EQ(v6.getIp(), "::1");
    EXPECT_TRUE(v6.getName().empty());

    // Almost-addresses are names.
    HostInfo odd;
    odd.setIpOrName("192.168.1");
    EXPECT_EQ(odd.getName(), "192.168.1");
    odd.setIpOrName("300.1.1.1");
    EXPECT_EQ(odd.getName(), "300.1.1.1");
    EXPECT_EQ(odd.getIp(), "");
}

TEST(HostInfoTest, TwoTextConstructor) {
    HostInfo byAddress("10.0.0.5", "worker");
    EXPECT_EQ(byAddress.getIp(), "10.0.0.5");
    EXPECT_EQ(byAddress.getName(), "worker");
    EXPECT_EQ(byAddress.getIpOrName(), "10.0.0.5");

    HostInfo byName("worker", "");
    EXPECT_EQ(byName.getName(), "worker");
    EXPECT_EQ(byName.getIp(), "");

    // The second text names the host even when the first was a name.
    HostInfo both("alias", "real");
    EXPECT_EQ(both.getName(), "real");
    EXPECT_TRUE(both.hasNameOrIp());
}

TEST(HostInfoTest, PortsAreSetOnlyWhenPositive) {
    HostInfo host;
    host.setRequestServerPort(4711);
    host.setPublisherPort(0);
    EXPECT_TRUE(host.hasRequestServerPort());
    EXPECT_EQ(host.getRequestServerPort(), 4711);
    EXPECT_FALSE(host.hasPublisherPort());
    EXPECT_EQ(host.getPublisherPort(), 0);
    host.setPublisherPort(5555);
    EXPECT_TRUE(host.hasPublisherPort());
    host.clear();
    EXPECT_FALSE(host.hasRequestServerPort());
    EXPECT_FALSE(host.hasPublisherPort());
    EXPECT_EQ(host.getRequestServerPort(), -1);
    EXPECT_FALSE(host.hasNameOrIp());
}

TEST(HostInfoTest, ToStringNamesEveryField) {
    HostInfo host("10.1.2.3", "alpha");
    host.setRequestServerPort(1234);
    host.setPublisherPort(5678);
    std::string text = host.toString();
    EXPECT_NE(text.find("alpha"), std::string::npos);
    EXPECT_NE(text.find("10.1.2.3"), std::string::npos);
    EXPECT_NE(text.find("1234"), std::string::npos);
    EXPECT_NE(text.find("5678"), std::string::npos);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(HostInfoTest, ToXmlStringLayout) {
    HostInfo host("10.1.2.3", "a&b");
    host.setRequestServerPort(1234);
    host.setPublisherPort(5678);
    EXPECT_EQ(host.toXmlString("requestHost", "  ", "   "),
              "  <requestHost>\n"
              "     <name>a&amp;b</name>\n"
              "     <ip>10.1.2.3</ip>\n"
              "     <requestServerPort>1234</requestServerPort>\n"
              "     <publisherPort>5678</publisherPort>\n"
              "  </requestHost>\n");

    HostInfo partial;
    partial.setIpOrName("node");
    partial.setPublisherPort(99);
    EXPECT_EQ(partial.toXmlString("h", "", "\t"),
              "<h>\n\t<name>node</name>\n\t<publisherPort>99</publisherPort>\n</h>\n");
    EXPECT_EQ(HostInfo().toXmlString("replyHost", "", "   "), "<replyHost>\n</replyHost>\n");
}

TEST(HostInfoTest, XmlRoundTripValidates) {
    HostInfo full("fe80::2", "host<1>");
    full.setRequestServerPort(40000);
    full.setPublisherPort(40001);
    expectSame(throughSchema(full), full);

    HostInfo nameOnly("onlyname", "");
    expectSame(throughSchema(nameOnly), nameOnly);

    HostInfo portOnly;
    portOnly.setRequestServerPort(80);
    expectSame(throughSchema(portOnly), portOnly);

    expectSame(throughSchema(HostInfo()), HostInfo());
}

TEST(HostInfoTest, NullElementGivesEmpty) {
    HostInfo host(static_cast<const xercesc::DOMElement*>(nullptr));
    EXPECT_FALSE(host.hasNameOrIp());
    EXPECT_FALSE(host.hasRequestServerPort());
}

TEST(HostInfoTest, CopyAndMove) {
    HostInfo original("10.0.0.1", "n");
    original.setRequestServerPort(1);
    HostInfo copy(original);
    expectSame(copy, original);
    HostInfo assigned;
    assigned = original;
    expectSame(assigned, original);
    HostInfo moved(std::move(copy));
    expectSame(moved, original);
}
