#include "Platform/RemoteComputation/Service/RequestHandling/TestSchema.h"

namespace Kestrane {

namespace {

// Global elements rather than request types: the test commands carry job ids as small
// documents of their own.
const char* const c_fragment = R"XSD(  <!-- TestSchema -->

  <xs:element name="KS_TestJobId">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="jobId" type="ksrq:KSJobId"/>
      </xs:sequence>
    </xs:complexType>
  </xs:element>

  <xs:element name="KS_TestJobIdJobStatus">
    <xs:complexType>
      <xs:choice>
        <xs:element name="jobId_R11" type="ksrq:KSJobId"/>
        <xs:sequence>
          <xs:element name="jobId" type="ksrq:KSUid"/>
          <xs:element name="jobName" type="xs:string"/>
        </xs:sequence>
      </xs:choice>
    </xs:complexType>
  </xs:element>
)XSD";

} // namespace

TestSchema::TestSchema() {
    m_schemaText += c_fragment;
}

} // namespace Kestrane
