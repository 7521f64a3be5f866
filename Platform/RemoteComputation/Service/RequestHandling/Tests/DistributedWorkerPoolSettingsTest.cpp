#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPoolSettings.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
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

#include <memory>
#include <string>
#include <utility>

using namespace Kestrane;

namespace {

using Settings = DistributedWorkerPoolSettings;

using TestXml::Document;
using TestXml::parsePlain;

Settings parse(const std::string& text) {
    Document document = parsePlain(text);
    return Settings(document->getDocumentElement());
}

// A document element of the settings' type, so that the request schema can judge a fragment.
class PoolSettingsSchema : public AbstractRequestSchema {
public:
    PoolSettingsSchema() {
        m_schemaText += "\n  <!-- PoolSettingsSchema -->\n"
                        "  <xs:element name=\"KS_PoolSettingsUnderTest\" "
                        "type=\"ksrq:KSDistributedWorkerPoolSettings\"/>\n";
    }
};

// Empty when the schema accepts what toXmlString wrote (under the test's element name),
// otherwise the parser's complaint.
std::string schemaProblem(const Settings& settings) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(StandardRequestSchema());
    helper->addSchema(PoolSettingsSchema());
    std::string text = settings.toXmlString("", "  ");
    const std::string open = "<distributedWorkerPoolSettings>";
    const std::string close = "</distributedWorkerPoolSettings>";
    EXPECT_EQ(text.rfind(open, 0), 0u) << text;
    EXPECT_NE(text.rfind(close), std::string::npos) << text;
    text.replace(text.rfind(close), close.size(), "</KS_PoolSettingsUnderTest>");
    text.replace(0, open.size(),
                 "<KS_PoolSettingsUnderTest " + RequestXmlHelper::getNamespaceDeclarations() + ">");
    try {
        Document document(helper->parse("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + text));
        return document ? "" : "no document";
    } catch (const KsException& e) {
        return std::string("rejected: ") + e.what();
    }
}

const std::string c_twoHosts = "<poolSettings>"
                               "<maxParallelTasks>6</maxParallelTasks>"
                               "<workerHost><hostNameOrIp>node2</hostNameOrIp>"
                               "<remoteServicePort>7000</remoteServicePort>"
                               "<maxWorkersOnHost>0</maxWorkersOnHost></workerHost>"
                               "<workerHost><hostNameOrIp>10.0.0.1</hostNameOrIp>"
                               "<remoteServicePort>7001</remoteServicePort>"
                               "<maxWorkersOnHost>4</maxWorkersOnHost></workerHost>"
                               "</poolSettings>";

// A fragment with maxParallelTasks 1 and one host whose port and worker count are given.
std::string oneHost(const std::string& port, const std::string& workers) {
    return "<s><maxParallelTasks>1</maxParallelTasks><workerHost><hostNameOrIp>h</hostNameOrIp>"
           "<remoteServicePort>" +
           port + "</remoteServicePort><maxWorkersOnHost>" + workers +
           "</maxWorkersOnHost></workerHost></s>";
}

} // namespace

TEST(DistributedWorkerPoolSettingsTest, DefaultAndScriptConstructors) {
    Settings none;
    EXPECT_TRUE(none.getWorkerHosts().empty());
    EXPECT_EQ(none.getJobSchedulerScript(), "");
    EXPECT_EQ(none.getMaxParallelTasks(), 0u);
    EXPECT_FALSE(none.useJobScheduler());
    Settings script("/opt/jobs/submit.sh");
    EXPECT_EQ(script.getJobSchedulerScript(), "/opt/jobs/submit.sh");
    EXPECT_EQ(script.getMaxParallelTasks(), 0u);
    EXPECT_TRUE(script.useJobScheduler());
    EXPECT_TRUE(script.getWorkerHosts().empty());
    script.setJobSchedulerScript("");
    EXPECT_FALSE(script.useJobScheduler());
    script.setMaxParallelTasks(12);
    EXPECT_EQ(script.getMaxParallelTasks(), 12u);
}

TEST(DistributedWorkerPoolSettingsTest, AddWorkerHostKeepsOneEntryPerNameInNameOrder) {
    Settings settings;
    settings.addWorkerHost("zeta", 7000, 2);
    settings.addWorkerHost("alpha", 7001, 0);
    settings.addWorkerHost("zeta", 7002, 5);
    const auto& hosts = settings.getWorkerHosts();
    ASSERT_EQ(hosts.size(), 2u);
    EXPECT_EQ(hosts.begin()->first, "alpha");
    const auto& zeta = hosts.at("zeta");
    EXPECT_EQ(zeta.hostNameOrIp, "zeta");
    EXPECT_EQ(zeta.remoteServicePort, 7002u);
    EXPECT_EQ(zeta.maxWorkersOnHost, 5u);
    EXPECT_EQ(hosts.at("alpha").remoteServicePort, 7001u);
    EXPECT_EQ(hosts.at("alpha").maxWorkersOnHost, 0u);
}

TEST(DistributedWorkerPoolSettingsTest, CopiesAndMovesAreValues) {
    Settings original;
    original.addWorkerHost("node1", 7000, 1);
    original.setMaxParallelTasks(3);
    Settings copy = original;
    copy.addWorkerHost("node2", 7000, 1);
    copy.setMaxParallelTasks(4);
    EXPECT_EQ(original.getWorkerHosts().size(), 1u);
    EXPECT_EQ(original.getMaxParallelTasks(), 3u);
    Settings moved = std::move(copy);
    EXPECT_EQ(moved.getWorkerHosts().size(), 2u);
    EXPECT_EQ(moved.getMaxParallelTasks(), 4u);
    moved = original;
    EXPECT_EQ(moved.toXmlString("", " "), original.toXmlString("", " "));
}

TEST(DistributedWorkerPoolSettingsTest, HostsAreWrittenInNameOrder) {
    Settings settings;
    settings.setMaxParallelTasks(6);
    settings.addWorkerHost("node2", 7000, 0);
    settings.addWorkerHost("a&b<c", 7001, 4);
    EXPECT_EQ(settings.toXmlString("  ", "\t"),
              "  <distributedWorkerPoolSettings>\n"
              "  \t<maxParallelTasks>6</maxParallelTasks>\n"
              "  \t<workerHost>\n"
              "  \t\t<hostNameOrIp>a&amp;b&lt;c</hostNameOrIp>\n"
              "  \t\t<remoteServicePort>7001</remoteServicePort>\n"
              "  \t\t<maxWorkersOnHost>4</maxWorkersOnHost>\n"
              "  \t</workerHost>\n"
              "  \t<workerHost>\n"
              "  \t\t<hostNameOrIp>node2</hostNameOrIp>\n"
              "  \t\t<remoteServicePort>7000</remoteServicePort>\n"
              "  \t\t<maxWorkersOnHost>0</maxWorkersOnHost>\n"
              "  \t</workerHost>\n"
              "  </distributedWorkerPoolSettings>\n");
}

TEST(DistributedWorkerPoolSettingsTest, AScriptIsWrittenInsteadOfTheHosts) {
    Settings settings("/opt/jobs/submit.sh --queue \"a<b\" && echo 'done' > x");
    settings.setMaxParallelTasks(2);
    settings.addWorkerHost("node1", 7000, 1);
    EXPECT_EQ(settings.toXmlString("", "    "),
              "<distributedWorkerPoolSettings>\n"
              "    <maxParallelTasks>2</maxParallelTasks>\n"
              "    <jobSchedulerScript>/opt/jobs/submit.sh --queue &quot;a&lt;b&quot; &amp;&amp; "
              "echo &apos;done&apos; &gt; x</jobSchedulerScript>\n"
              "</distributedWorkerPoolSettings>\n");
}

TEST(DistributedWorkerPoolSettingsTest, DefaultsAreWrittenButTheSchemaRefusesThem) {
    Settings settings;
    EXPECT_EQ(settings.toXmlString("", "  "), "<distributedWorkerPoolSettings>\n"
                                              "  <maxParallelTasks>0</maxParallelTasks>\n"
                                              "</distributedWorkerPoolSettings>\n");
    // Neither a script nor a host: a pool without any place for its workers.
    std::string problem = schemaProblem(settings);
    EXPECT_EQ(problem.rfind("rejected: ", 0), 0u) << problem;
    settings.addWorkerHost("node1", 7000, 2);
    EXPECT_EQ(schemaProblem(settings), "");
    EXPECT_EQ(schemaProblem(Settings("/opt/jobs/submit.sh")), "");
}

TEST(DistributedWorkerPoolSettingsTest, HostsAreRead) {
    Settings settings = parse(c_twoHosts);
    EXPECT_EQ(settings.getMaxParallelTasks(), 6u);
    EXPECT_FALSE(settings.useJobScheduler());
    const auto& hosts = settings.getWorkerHosts();
    ASSERT_EQ(hosts.size(), 2u);
    EXPECT_EQ(hosts.at("node2").hostNameOrIp, "node2");
    EXPECT_EQ(hosts.at("node2").remoteServicePort, 7000u);
    EXPECT_EQ(hosts.at("node2").maxWorkersOnHost, 0u);
    EXPECT_EQ(hosts.at("10.0.0.1").remoteServicePort, 7001u);
    EXPECT_EQ(hosts.at("10.0.0.1").maxWorkersOnHost, 4u);
}

TEST(DistributedWorkerPoolSettingsTest, ValidatedDocumentWithItsNamespaceIsRead) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    helper->addSchema(StandardRequestSchema());
    helper->addSchema(PoolSettingsSchema());
    Settings written;
    written.setMaxParallelTasks(9);
    written.addWorkerHost("node7", 7007, 3);
    std::string text = written.toXmlString("", " ");
    text.replace(0, std::string("<distributedWorkerPoolSettings>").size(),
                 "<KS_PoolSettingsUnderTest " + RequestXmlHelper::getNamespaceDeclarations() + ">");
    text.replace(text.rfind("</distributedWorkerPoolSettings>"),
                 std::string("</distributedWorkerPoolSettings>").size(),
                 "</KS_PoolSettingsUnderTest>");
    Document document(helper->parse(text));
    Settings read(document->getDocumentElement());
    EXPECT_EQ(read.getMaxParallelTasks(), 9u);
    ASSERT_EQ(read.getWorkerHosts().size(), 1u);
    EXPECT_EQ(read.getWorkerHosts().at("node7").remoteServicePort, 7007u);
    EXPECT_EQ(read.getWorkerHosts().at("node7").maxWorkersOnHost, 3u);
}

TEST(DistributedWorkerPoolSettingsTest, AScriptStopsTheReadingOfHosts) {
    // The host after the script would not even convert: it is never looked at.
    Settings settings = parse("<anyName>"
                              "<maxParallelTasks>3</maxParallelTasks>"
                              "<workerHost><hostNameOrIp>node1</hostNameOrIp>"
                              "<remoteServicePort>7000</remoteServicePort>"
                              "<maxWorkersOnHost>1</maxWorkersOnHost></workerHost>"
                              "<jobSchedulerScript>/opt/jobs/submit.sh</jobSchedulerScript>"
                              "<workerHost><hostNameOrIp>node2</hostNameOrIp>"
                              "<remoteServicePort>port</remoteServicePort></workerHost>"
                              "</anyName>");
    EXPECT_TRUE(settings.useJobScheduler());
    EXPECT_EQ(settings.getJobSchedulerScript(), "/opt/jobs/submit.sh");
    EXPECT_EQ(settings.getMaxParallelTasks(), 3u);
    EXPECT_TRUE(settings.getWorkerHosts().empty());
}

TEST(DistributedWorkerPoolSettingsTest, TheLaterOfTwoHostsOfOneNameWins) {
    Settings settings = parse("<s><maxParallelTasks>0</maxParallelTasks>"
                              "<workerHost><hostNameOrIp>node1</hostNameOrIp>"
                              "<remoteServicePort>7000</remoteServicePort>"
                              "<maxWorkersOnHost>1</maxWorkersOnHost></workerHost>"
                              "<workerHost><hostNameOrIp>node1</hostNameOrIp>"
                              "<remoteServicePort>7100</remoteServicePort>"
                              "<maxWorkersOnHost>8</maxWorkersOnHost></workerHost>"
                              "</s>");
    ASSERT_EQ(settings.getWorkerHosts().size(), 1u);
    EXPECT_EQ(settings.getWorkerHosts().at("node1").remoteServicePort, 7100u);
    EXPECT_EQ(settings.getWorkerHosts().at("node1").maxWorkersOnHost, 8u);
}

TEST(DistributedWorkerPoolSettingsTest, RoundTripKeepsScriptWithLessThanAndAmpersand) {
    const std::string script = "/opt/jobs/submit.sh -q 'fast' < input && echo \"x & y\" >> log";
    Settings original(script);
    original.setMaxParallelTasks(5);
    Settings read = parse(original.toXmlString("  ", "  "));
    EXPECT_EQ(read.getJobSchedulerScript(), script);
    EXPECT_EQ(read.getMaxParallelTasks(), 5u);
    EXPECT_TRUE(read.getWorkerHosts().empty());
    EXPECT_EQ(read.toXmlString("", "\t"), original.toXmlString("", "\t"));
}

TEST(DistributedWorkerPoolSettingsTest, RoundTripKeepsHosts) {
    Settings original;
    original.setMaxParallelTasks(4294967295u);
    original.addWorkerHost("node<1>&co", 65535, 0);
    original.addWorkerHost("10.1.2.3", 1, 4294967295u);
    Settings read = parse(original.toXmlString("", "  "));
    EXPECT_EQ(read.getMaxParallelTasks(), 4294967295u);
    ASSERT_EQ(read.getWorkerHosts().size(), 2u);
    EXPECT_EQ(read.getWorkerHosts().at("node<1>&co").remoteServicePort, 65535u);
    EXPECT_EQ(read.getWorkerHosts().at("10.1.2.3").maxWorkersOnHost, 4294967295u);
    EXPECT_EQ(read.toXmlString("", "  "), original.toXmlString("", "  "));
}

TEST(DistributedWorkerPoolSettingsTest, TextsAreUnescapedOnceMoreAfterTheParser) {
    // The parser makes "&amp;lt;" into "&lt;", fromXml makes that into "<".
    Settings settings =
        parse("<s><maxParallelTasks>1</maxParallelTasks>"
              "<jobSchedulerScript>a &amp;lt; b &amp;#65;</jobSchedulerScript></s>");
    EXPECT_EQ(settings.getJobSchedulerScript(), "a < b A");
}

TEST(DistributedWorkerPoolSettingsTest, NumbersTakeASignAndBlanksButNothingNegative) {
    Settings signs = parse(oneHost("+7000", " 3\n"));
    EXPECT_EQ(signs.getWorkerHosts().at("h").remoteServicePort, 7000u);
    EXPECT_EQ(signs.getWorkerHosts().at("h").maxWorkersOnHost, 3u);
    EXPECT_EQ(parse(oneHost("-0", "0")).getWorkerHosts().at("h").remoteServicePort, 0u);
    EXPECT_THROW(parse(oneHost("-1", "1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("1", "-1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("4294967296", "1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("99999999999999999999999", "1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse("<s><maxParallelTasks>-5</maxParallelTasks>"
                       "<jobSchedulerScript>x</jobSchedulerScript></s>"),
                 boost::bad_lexical_cast);
}

TEST(DistributedWorkerPoolSettingsTest, MissingOrBadNumbersThrow) {
    EXPECT_THROW(parse("<s><jobSchedulerScript>x</jobSchedulerScript></s>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(parse("<s><maxParallelTasks>many</maxParallelTasks>"
                       "<jobSchedulerScript>x</jobSchedulerScript></s>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(parse("<s><maxParallelTasks></maxParallelTasks></s>"), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("http", "1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("7000", "2.5")), boost::bad_lexical_cast);
    EXPECT_THROW(parse(oneHost("70 00", "1")), boost::bad_lexical_cast);
    EXPECT_THROW(parse("<s><maxParallelTasks>1</maxParallelTasks><workerHost>"
                       "<hostNameOrIp>h</hostNameOrIp><maxWorkersOnHost>1</maxWorkersOnHost>"
                       "</workerHost></s>"),
                 boost::bad_lexical_cast);
}

TEST(DistributedWorkerPoolSettingsTest, MalformedFragmentsThrowInsteadOfCrashing) {
    EXPECT_THROW(Settings(static_cast<xercesc::DOMElement*>(nullptr)), boost::bad_lexical_cast);
    EXPECT_THROW(parse("<s/>"), boost::bad_lexical_cast);
    // A host without a name can't be reached.
    EXPECT_THROW(parse("<s><maxParallelTasks>1</maxParallelTasks><workerHost>"
                       "<remoteServicePort>1</remoteServicePort>"
                       "<maxWorkersOnHost>1</maxWorkersOnHost></workerHost></s>"),
                 KsExceptionNested);
    EXPECT_THROW(parse("<s><maxParallelTasks>1</maxParallelTasks><workerHost/></s>"),
                 KsExceptionNested);
    // The numbers nested one level too deep are still text of the element: "12".
    Settings nested = parse("<s><maxParallelTasks><a>1</a><b>2</b></maxParallelTasks>"
                            "<jobSchedulerScript><x>run</x></jobSchedulerScript></s>");
    EXPECT_EQ(nested.getMaxParallelTasks(), 12u);
    EXPECT_EQ(nested.getJobSchedulerScript(), "run");
    // Neither script nor hosts: settings without a place for workers, as the defaults are.
    Settings bare = parse("<s><maxParallelTasks>2</maxParallelTasks><other/></s>");
    EXPECT_FALSE(bare.useJobScheduler());
    EXPECT_TRUE(bare.getWorkerHosts().empty());
    // An empty script element is no script: the hosts are not read either.
    Settings emptyScript = parse("<s><maxParallelTasks>2</maxParallelTasks>"
                                 "<jobSchedulerScript/>" +
                                 std::string("<workerHost><hostNameOrIp>h</hostNameOrIp>"
                                             "<remoteServicePort>1</remoteServicePort>"
                                             "<maxWorkersOnHost>1</maxWorkersOnHost>"
                                             "</workerHost></s>"));
    EXPECT_FALSE(emptyScript.useJobScheduler());
    EXPECT_TRUE(emptyScript.getWorkerHosts().empty());
}
