#include "PrimeCountSchema.h"

namespace Kestrane {

namespace {
const char* const c_fragment = R"XSD(  <!-- PrimeCountSchema -->

  <!-- Carries the pool's timing to its workers, which have no other way to learn it. -->
  <xs:complexType name="RunPrimeCountWorkerRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:RunDistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="coreCheckIntervalS" type="xs:unsignedInt"/>
          <xs:element name="inputWaitIntervalS" type="xs:unsignedInt"/>
          <xs:element name="poolMaxAliveAge" type="xs:unsignedInt"/>
          <xs:element name="poolMaxChangeAge" type="xs:unsignedInt"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="PrimeCountResultRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:DistributedWorkerResultRequest">
        <xs:sequence>
          <xs:element name="primes" type="xs:unsignedLong"/>
          <xs:element name="workerPid" type="xs:unsignedInt"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="PrimeCountInputReply">
    <xs:complexContent>
      <xs:extension base="ksrq:GetDistributedWorkerInputReply">
        <xs:sequence minOccurs="0">
          <xs:element name="from" type="xs:unsignedLong"/>
          <xs:element name="to" type="xs:unsignedLong"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)XSD";
} // namespace

PrimeCountSchema::PrimeCountSchema() {
    m_schemaText += c_fragment;
}

} // namespace Kestrane
