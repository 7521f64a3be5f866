#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/ConfigurationTestObjects.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

// The message of the KsExceptionNested that reading the text throws; fails the test when
// reading succeeds or throws anything else.
std::string readFailure(const std::string& text) {
    try {
        ConfigReader::fromString(text);
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(e.getSource(), "Configuration");
        return e.what();
    } catch (...) {
        ADD_FAILURE() << "unexpected exception type for: " << text;
        return std::string();
    }
    ADD_FAILURE() << "no exception for: " << text;
    return std::string();
}

void writeFile(const FileName& file, const std::string& text) {
    std::ofstream out(file.toNativeString(), std::ios::binary);
    out << text;
}

std::string readFile(const FileName& file) {
    std::ifstream in(file.toNativeString(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(ConfigXmlTest, EmptyWriterIsAnEmptyConfiguration) {
    ConfigWriter writer;
    ConfigReader reader = ConfigReader::fromString(writer.toString());
    EXPECT_TRUE(reader.getObjectKeys().empty());
    EXPECT_FALSE(reader.hasObjectContents("any"));
    EXPECT_TRUE(contains(writer.toString(), "<configuration"));
}

TEST(ConfigXmlTest, SpecialCharactersSurvive) {
    std::string awkward = "a<b && c>d \"double\" 'single' ]]> <![CDATA[x]]> &amp; &#65;";
    for (int i = 0; i < 300; ++i)
        awkward += "&<";
    awkward += "\n  two lines with blanks around  \n\t"
               "\xC3\xA4\xE2\x82\xAC"; // a-umlaut and euro sign in UTF-8
    ServerSettings settings;
    settings.setHost(awkward);
    settings.setPort("");
    ServerList list;
    list.m_servers.push_back(settings);

    ConfigWriter writer;
    writer.putObjectContents("key \"<&>' of it", list, "description <&\"'>");
    const std::string text = writer.toString();
    EXPECT_FALSE(contains(text, "a<b"));

    ConfigReader reader = ConfigReader::fromString(text);
    ASSERT_EQ(reader.getObjectKeys(), std::vector<std::string>{"key \"<&>' of it"});
    ServerList loaded;
    reader.getObjectContents("key \"<&>' of it", loaded);
    ASSERT_EQ(loaded.m_servers.size(), 1u);
    EXPECT_EQ(loaded.m_servers[0].getHost(), awkward);
    EXPECT_EQ(loaded.m_servers[0].getPort(), "");
}

TEST(ConfigXmlTest, CarriageReturnsSurvive) {
    ServerSettings settings;
    settings.setHost("a\r\nb\rc");
    ConfigWriter writer;
    writer.putObjectContents("s", settings);
    ServerSettings loaded;
    ConfigReader::fromString(writer.toString()).getObjectContents("s", loaded);
    EXPECT_EQ(loaded.getHost(), "a\r\nb\rc");
}

TEST(ConfigXmlTest, ControlCharactersAreRefused) {
    ServerSettings settings;
    settings.setHost(std::string("bell\x07"));
    ConfigWriter writer;
    try {
        writer.putObjectContents("s", settings);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Can't store value 'host': it contains the control character 0x07");
    }
}

TEST(ConfigXmlTest, WriterRefusesWrongPlacesAndDuplicates) {
    ConfigWriter writer;
    EXPECT_THROW(writer.putValue("loose", "value"), KsExceptionNested);
    ServerSettings settings;
    EXPECT_THROW(writer.putClassContents("server", "id", settings), KsExceptionNested);
    writer.putObjectContents("s", settings);
    EXPECT_THROW(writer.putObjectContents("s", settings), KsExceptionNested);
    EXPECT_THROW(writer.putObjectContents("", settings), KsExceptionNested);

    ServerList list;
    list.m_servers.resize(2); // both keyed "localhost"
    EXPECT_THROW(writer.putObjectContents("list", list), KsExceptionNested);
}

TEST(ConfigXmlTest, ValuesAndEntriesAreReadInDocumentOrder) {
    ConfigReader reader = ConfigReader::fromString(R"(<?xml version="1.0"?>
<configuration>
  <object key="list">
    <value name="first">1</value>
    <class tag="server" id="zeta"><value name="port">1</value></class>
    <class tag="other" id="alpha"/>
    <class tag="server" id="alpha"><value name="port">2</value></class>
    <value name="second"><![CDATA[<raw & text>]]></value>
    <class tag="server" id="mid"/>
  </object>
</configuration>)");
    // Walk into the object through a small loader, as derived objects do.
    class Inspector : public ConfigurationObject {
    public:
        Inspector() : ConfigurationObject("Inspector", "", Persistence::User, ProductType::All) {}
        ConfigurationObject* createConfigurationObject() const override { return new Inspector(); }
        void loadContent(ConfigReader& reader) override {
            m_values = reader.getValueNames();
            m_servers = reader.getEntryNames("server");
            m_second = reader.getValue("second");
            m_hasAlpha = reader.hasClassContents("server", "alpha");
            m_hasMissing = reader.hasClassContents("server", "missing");
            for (const auto& id : m_servers) {
                ServerSettings settings;
                reader.getClassContents("server", id, settings);
                m_ports.push_back(settings.getPort());
            }
            ServerSettings none;
            EXPECT_THROW(reader.getClassContents("server", "missing", none), KsExceptionNested);
            EXPECT_THROW(reader.getValue("missing"), KsExceptionNested);
        }
        std::vector<std::string> m_values, m_servers, m_ports;
        std::string m_second;
        bool m_hasAlpha = false, m_hasMissing = true;
    };
    Inspector inspector;
    reader.getObjectContents("list", inspector);
    EXPECT_EQ(inspector.m_values, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(inspector.m_servers, (std::vector<std::string>{"zeta", "alpha", "mid"}));
    EXPECT_EQ(inspector.m_ports, (std::vector<std::string>{"1", "2", "4000"}));
    EXPECT_EQ(inspector.m_second, "<raw & text>");
    EXPECT_TRUE(inspector.m_hasAlpha);
    EXPECT_FALSE(inspector.m_hasMissing);
    EXPECT_THROW(reader.getObjectContents("missing", inspector), KsExceptionNested);
}

TEST(ConfigXmlTest, MalformedTextNamesLineAndColumn) {
    LogCapture capture;
    const std::string message =
        readFailure("<configuration>\n<object key=\"a\">\n<value name=\"x\">1</valu>\n");
    EXPECT_TRUE(contains(message, "Malformed configuration 'text': line 3, column")) << message;
    EXPECT_TRUE(capture.containsSubstring("Can't read configuration 'text': line 3, column"));

    for (const std::string& text : std::vector<std::string>{
             "", "   ", "not xml at all", "<configuration>", "<configuration><object key='a'>",
             "<configuration></other>", "<configuration a='1' a='2'/>",
             std::string("\0\x01\xFF\xFE binary", 12), "<configuration/><configuration/>",
             "<configuration>&undefined;</configuration>"}) {
        const std::string failure = readFailure(text);
        EXPECT_TRUE(contains(failure, "Malformed configuration 'text': line ")) << failure;
    }
}

TEST(ConfigXmlTest, DocumentsOfTheWrongShapeAreRefused) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"<settings/>", "'text' is not a configuration: its root element is <settings>"},
        {"<configuration><value name='a'>1</value></configuration>",
         "has the unexpected top-level element <value name=\"a\">"},
        {"<configuration><object/></configuration>", "has an <object> without a key"},
        {"<configuration><object key='a'/><object key='a'/></configuration>",
         "holds <object key=\"a\"> twice"},
        {"<configuration><object key='a'><value>1</value></object></configuration>",
         "has a <value> without a name in <object key=\"a\">"},
        {"<configuration><object key='a'><value name='v'><b/></value></object></configuration>",
         "<value name=\"v\"> in <object key=\"a\"> holds elements instead of text"},
        {"<configuration><object key='a'><value name='v'/><value name='v'/></object>"
         "</configuration>",
         "holds <value name=\"v\"> twice in <object key=\"a\">"},
        {"<configuration><object key='a'><class tag='t'/></object></configuration>",
         "has a <class> entry without tag or id in <object key=\"a\">"},
        {"<configuration><object key='a'><class tag='t' id='1'><other/></class></object>"
         "</configuration>",
         "has the unexpected element <other> in <class tag=\"t\" id=\"1\">"},
        {"<configuration><object key='a'>stray</object></configuration>",
         "has unexpected text in <object key=\"a\">"},
        {"<configuration>stray</configuration>", "has unexpected text in <configuration>"},
        {"<!DOCTYPE configuration [<!ENTITY e 'x'>]><configuration/>",
         "has a document type declaration"},
    };
    for (const auto& [text, expected] : cases) {
        const std::string failure = readFailure(text);
        EXPECT_TRUE(contains(failure, expected)) << text << " gave: " << failure;
    }
}

TEST(ConfigXmlTest, EntityExpansionIsBounded) {
    std::string text = "<!DOCTYPE configuration [<!ENTITY a 'aaaaaaaaaa'>";
    std::string previous = "a";
    for (char name = 'b'; name <= 'j'; ++name) {
        std::string references;
        for (int i = 0; i < 10; ++i)
            references += "&" + previous + ";";
        text += std::string("<!ENTITY ") + name + " '" + references + "'>";
        previous = std::string(1, name);
    }
    text += "]><configuration><object key='a'><value name='v'>&j;</value></object>"
            "</configuration>";
    EXPECT_FALSE(readFailure(text).empty());
}

TEST(ConfigXmlTest, SaveToFileAndLoadBack) {
    TemporaryDirectory directory;
    const FileName file = directory.path() / "settings.xml";
    ServerList list;
    list.m_servers.resize(2);
    list.m_servers[0].setHost("first <host>");
    list.m_servers[1].setHost("second & host");
    list.m_servers[1].setPort("9");
    ConfigWriter writer;
    writer.putObjectContents("list", list, "servers");
    writer.saveToFile(file);
    EXPECT_TRUE(FileUtilities::exists(file));
    EXPECT_FALSE(FileUtilities::exists(FileName(file.toString() + ".saving")));
    EXPECT_EQ(readFile(file), writer.toString());

    ServerList loaded;
    ConfigReader reader = ConfigReader::fromFile(file);
    EXPECT_EQ(reader.getSourceName(), file.toNativeString());
    reader.getObjectContents("list", loaded);
    ASSERT_EQ(loaded.m_servers.size(), 2u);
    EXPECT_EQ(loaded.m_servers[0].getHost(), "first <host>");
    EXPECT_EQ(loaded.m_servers[1].getHost(), "second & host");
    EXPECT_EQ(loaded.m_servers[1].getPort(), "9");
}

TEST(ConfigXmlTest, FileProblemsGiveClearExceptions) {
    TemporaryDirectory directory;
    const FileName missing = directory.path() / "missing.xml";
    try {
        ConfigReader::fromFile(missing);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Configuration file '" + missing.toNativeString() + "' does not exist");
    }
    EXPECT_THROW(ConfigReader::fromFile(directory.path()), KsExceptionNested);

    const FileName broken = directory.path() / "broken.xml";
    writeFile(broken, "<configuration>\n  <object key=\"a\">\n</configuration>\n");
    try {
        ConfigReader::fromFile(broken);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_TRUE(
            contains(e.what(), "Malformed configuration '" + broken.toNativeString() + "': line 3"))
            << e.what();
    }

    ConfigWriter writer;
    EXPECT_THROW(writer.saveToFile(directory.path() / "no-such-dir" / "x.xml"), KsExceptionNested);
}
