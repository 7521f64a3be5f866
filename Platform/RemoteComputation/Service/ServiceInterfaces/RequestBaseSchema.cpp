#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestBaseSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"

namespace Kestrane {

namespace {

// Package attributes are plain optional strings on purpose: the package decoders read and
// judge them, and must be the ones to report a bad value.
const char* const c_declarations = R"XSD(
  <!-- RequestBaseSchema -->

  <xs:element name="KS_RequestPackage">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="request" type="ksrq:Request"/>
      </xs:sequence>
      <xs:attribute name="version" type="xs:string"/>
      <xs:attribute name="serial" type="xs:string"/>
      <xs:attribute name="timestamp" type="xs:string"/>
      <xs:attribute name="clientId" type="xs:string"/>
      <xs:attribute name="requestClientId" type="xs:string"/>
      <xs:attribute name="replyHost" type="xs:string"/>
      <xs:attribute name="replyPort" type="xs:string"/>
      <xs:attribute name="origin" type="xs:string"/>
      <xs:attribute name="progressUpdates" type="xs:string"/>
      <xs:attribute name="replyExpected" type="xs:string"/>
    </xs:complexType>
  </xs:element>

  <xs:element name="KS_ReplyPackage">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="reply" type="ksrq:Reply"/>
      </xs:sequence>
      <xs:attribute name="version" type="xs:string"/>
      <xs:attribute name="serial" type="xs:string"/>
      <xs:attribute name="timestamp" type="xs:string"/>
      <xs:attribute name="origin" type="xs:string"/>
    </xs:complexType>
  </xs:element>

  <xs:element name="KS_Request">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="request" type="ksrq:Request"/>
      </xs:sequence>
    </xs:complexType>
  </xs:element>

  <xs:element name="KS_Reply">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="reply" type="ksrq:Reply"/>
      </xs:sequence>
    </xs:complexType>
  </xs:element>

  <!-- Abstract, so that every request names its concrete type by xsi:type. -->
  <xs:complexType name="Request" abstract="true">
    <xs:attribute name="id" type="ksrq:KSUid" use="required"/>
    <xs:attribute name="coreId" type="xs:string"/>
  </xs:complexType>

  <xs:complexType name="Reply">
    <xs:attribute name="requestId" type="ksrq:KSUid"/>
  </xs:complexType>

  <xs:simpleType name="KSUid">
    <xs:restriction base="xs:string">
      <xs:pattern value="[0-9A-F]{16}-[0-9A-F]{16}-[0-9A-F]{16}"/>
    </xs:restriction>
  </xs:simpleType>

  <xs:complexType name="KSJobId">
    <xs:sequence>
      <xs:element name="uid" type="ksrq:KSUid"/>
      <xs:element name="name" type="xs:string" minOccurs="0"/>
    </xs:sequence>
  </xs:complexType>

  <!-- A data element: attributes say where the data lies; it may carry content of its own. -->
  <xs:complexType name="KSData" mixed="true">
    <xs:sequence>
      <xs:any minOccurs="0" maxOccurs="unbounded" processContents="lax"/>
    </xs:sequence>
    <xs:attribute name="id" type="xs:string"/>
    <xs:attribute name="name" type="xs:string"/>
    <xs:attribute name="dataPtrType" type="xs:string"/>
    <xs:attribute name="dataType" type="xs:string"/>
    <xs:attribute name="dataSize" type="xs:string"/>
    <xs:attribute name="href" type="xs:string"/>
    <xs:attribute name="fileTransfered" type="xs:string"/>
    <xs:attribute name="forceTransfer" type="xs:string"/>
  </xs:complexType>

  <xs:complexType name="KSException">
    <xs:sequence>
      <xs:element name="type" type="xs:string"/>
      <xs:element name="message" type="xs:string" minOccurs="0"/>
      <xs:element name="name" type="xs:string" minOccurs="0"/>
      <xs:element name="source" type="xs:string" minOccurs="0"/>
      <xs:element name="file" type="xs:string" minOccurs="0"/>
      <xs:element name="function" type="xs:string" minOccurs="0"/>
      <xs:element name="line" type="xs:string" minOccurs="0"/>
      <xs:element name="innerException" type="ksrq:KSException" minOccurs="0"/>
    </xs:sequence>
  </xs:complexType>

  <xs:complexType name="HostInfo">
    <xs:sequence>
      <xs:element name="name" type="xs:string" minOccurs="0"/>
      <xs:element name="ip" type="xs:string" minOccurs="0"/>
      <xs:element name="requestServerPort" type="xs:int" minOccurs="0"/>
      <xs:element name="publisherPort" type="xs:int" minOccurs="0"/>
    </xs:sequence>
  </xs:complexType>

  <!-- Job status content belongs to the applications; the schema lets anything through. -->
  <xs:complexType name="SoloRunJobStatus" mixed="true">
    <xs:sequence>
      <xs:any minOccurs="0" maxOccurs="unbounded" processContents="skip"/>
    </xs:sequence>
    <xs:anyAttribute processContents="skip"/>
  </xs:complexType>

  <xs:complexType name="ContourJobStatus" mixed="true">
    <xs:sequence>
      <xs:any minOccurs="0" maxOccurs="unbounded" processContents="skip"/>
    </xs:sequence>
    <xs:anyAttribute processContents="skip"/>
  </xs:complexType>

  <xs:complexType name="OrvelJobStatus" mixed="true">
    <xs:sequence>
      <xs:any minOccurs="0" maxOccurs="unbounded" processContents="skip"/>
    </xs:sequence>
    <xs:anyAttribute processContents="skip"/>
  </xs:complexType>

  <xs:complexType name="FeedbackLoopJobStatus" mixed="true">
    <xs:sequence>
      <xs:any minOccurs="0" maxOccurs="unbounded" processContents="skip"/>
    </xs:sequence>
    <xs:anyAttribute processContents="skip"/>
  </xs:complexType>
)XSD";

} // namespace

const std::string& RequestBaseSchema::getDeclarations() {
    static const std::string declarations(c_declarations);
    return declarations;
}

std::string RequestBaseSchema::getSchemaText(const std::vector<std::string>& fragments) {
    std::string text;
    text += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    text += "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\"\n";
    text += "           xmlns:ksrq=\"" + std::string(RequestXmlHelper::c_namespaceUri) + "\"\n";
    text +=
        "           targetNamespace=\"" + std::string(RequestXmlHelper::c_namespaceUri) + "\"\n";
    text += "           elementFormDefault=\"qualified\">\n";
    text += getDeclarations();
    for (const std::string& fragment : fragments) {
        text += fragment;
        text += "\n";
    }
    text += "</xs:schema>\n";
    return text;
}

} // namespace Kestrane
