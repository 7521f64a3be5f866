#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"

namespace Kestrane {

namespace {

const char* const c_fragment = R"XSD(  <!-- ServerRequestSchema -->

  <xs:complexType name="GetStatusRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request"/>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="ShutdownRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request"/>
    </xs:complexContent>
  </xs:complexType>

  <!-- A started server reports either where it listens or why it could not start. -->
  <xs:complexType name="CallbackRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="callbackId" type="xs:string"/>
          <xs:choice>
            <xs:sequence>
              <xs:element name="host" type="xs:string"/>
              <xs:element name="port" type="xs:unsignedInt"/>
            </xs:sequence>
            <xs:element name="errorMessage" type="xs:string"/>
          </xs:choice>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="DisconnectRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="originalRequestId" type="ksrq:KSUid"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="ReconnectRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="originalRequestId" type="ksrq:KSUid"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="GetStatusReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="status" type="xs:string"/>
          <xs:element name="version" type="xs:string"/>
          <xs:element name="executableName" type="xs:string" minOccurs="0"/>
          <xs:element name="jobId" type="ksrq:KSJobId" minOccurs="0"/>
          <xs:element name="availableTmpStorage" type="xs:long"/>
          <xs:element name="requestHost" type="ksrq:HostInfo"/>
          <xs:element name="replyHost" type="ksrq:HostInfo"/>
          <xs:element name="timeStamp" type="xs:long"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)XSD";

} // namespace

ServerRequestSchema::ServerRequestSchema() {
    m_schemaText += c_fragment;
}

} // namespace Kestrane
