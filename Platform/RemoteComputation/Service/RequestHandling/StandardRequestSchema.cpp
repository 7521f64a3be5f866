#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"

namespace Kestrane {

namespace {

const char* const c_fragment = R"XSD(  <!-- StandardRequestSchema -->

  <!-- Aborts either one request or everything that runs for one job. -->
  <xs:complexType name="AbortRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:choice>
          <xs:element name="requestId" type="ksrq:KSUid"/>
          <xs:element name="jobId" type="ksrq:KSUid"/>
        </xs:choice>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="TestRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="command" type="xs:string"/>
          <xs:element name="data" minOccurs="0">
            <xs:complexType>
              <xs:simpleContent>
                <xs:extension base="xs:string"/>
              </xs:simpleContent>
            </xs:complexType>
          </xs:element>
          <xs:element name="file" type="ksrq:KSData" minOccurs="0" maxOccurs="unbounded"/>
          <xs:element name="attachment" type="ksrq:KSData" minOccurs="0" maxOccurs="unbounded"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="StartQueuedJobRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="jobId" type="ksrq:KSUid"/>
          <xs:element name="cancelJob" type="xs:boolean" minOccurs="0" default="false"/>
          <xs:element name="errorMessage" type="xs:string" minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="AckReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="status" type="xs:string"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="TestReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="data" type="xs:string" minOccurs="0"/>
          <xs:element name="file" type="ksrq:KSData" minOccurs="0" maxOccurs="unbounded"/>
          <xs:element name="attachment" type="ksrq:KSData" minOccurs="0" maxOccurs="unbounded"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="ExceptionReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="exceptionStr" type="xs:string"/>
          <xs:element name="exception" type="ksrq:KSException"/>
          <xs:element name="request" type="xs:string" minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <!-- The refusal of a package carries the decoder's exception after the message. -->
  <xs:complexType name="InvalidPackageReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="errorMessage" type="xs:string"/>
          <xs:element name="exceptionStr" type="xs:string" minOccurs="0"/>
          <xs:element name="exception" type="ksrq:KSException" minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <!-- Any mix of news about a running job, in any order; an update says at least one thing.
       No child of the choice is optional: an optional one would let the choice match nothing
       and so let an empty update through. Repeating the choice gives the same documents. -->
  <xs:complexType name="ProgressUpdate">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:choice maxOccurs="unbounded">
          <xs:element name="requestLogMessage">
            <xs:complexType>
              <xs:simpleContent>
                <xs:extension base="xs:string">
                  <xs:attribute name="messageType" type="xs:string"/>
                  <xs:attribute name="messageGroup" type="xs:string"/>
                  <xs:attribute name="timestamp" type="xs:long" use="required"/>
                </xs:extension>
              </xs:simpleContent>
            </xs:complexType>
          </xs:element>
          <xs:element name="jobStatus">
            <xs:complexType>
              <xs:choice>
                <xs:element name="soloRunJobStatus" type="ksrq:SoloRunJobStatus"/>
                <xs:element name="contourJobStatus" type="ksrq:ContourJobStatus"/>
                <xs:element name="orvelJobStatus" type="ksrq:OrvelJobStatus"/>
                <xs:element name="feedbackLoopJobStatus" type="ksrq:FeedbackLoopJobStatus"/>
              </xs:choice>
            </xs:complexType>
          </xs:element>
          <xs:element name="realization" maxOccurs="unbounded">
            <xs:complexType>
              <xs:sequence>
                <xs:element name="status" type="xs:string"/>
                <xs:element name="soloRunJobStatus" type="ksrq:SoloRunJobStatus" minOccurs="0"/>
                <xs:element name="errorMessage" type="xs:string" minOccurs="0"/>
                <xs:element name="logMessage" minOccurs="0" maxOccurs="unbounded">
                  <xs:complexType>
                    <xs:simpleContent>
                      <xs:extension base="xs:string">
                        <xs:attribute name="type" type="xs:string" use="required"/>
                        <xs:attribute name="group" type="xs:string" use="required"/>
                        <xs:attribute name="timestamp" type="xs:long" use="required"/>
                      </xs:extension>
                    </xs:simpleContent>
                  </xs:complexType>
                </xs:element>
                <xs:element name="resultRunId" type="xs:string" minOccurs="0"/>
              </xs:sequence>
              <xs:attribute name="id" type="xs:unsignedInt" use="required"/>
            </xs:complexType>
          </xs:element>
          <xs:element name="iteration" maxOccurs="unbounded">
            <xs:complexType>
              <xs:sequence>
                <xs:element name="status" type="xs:string"/>
                <xs:element name="soloRunJobStatus" type="ksrq:SoloRunJobStatus"/>
                <xs:element name="logMessage" minOccurs="0" maxOccurs="unbounded">
                  <xs:complexType>
                    <xs:simpleContent>
                      <xs:extension base="xs:string">
                        <xs:attribute name="type" type="xs:string" use="required"/>
                        <xs:attribute name="group" type="xs:string" use="required"/>
                        <xs:attribute name="timestamp" type="xs:long" use="required"/>
                      </xs:extension>
                    </xs:simpleContent>
                  </xs:complexType>
                </xs:element>
              </xs:sequence>
              <xs:attribute name="id" type="xs:unsignedInt" use="required"/>
              <xs:attribute name="maxDeviation" type="xs:double"/>
            </xs:complexType>
          </xs:element>
          <xs:element name="jobStatusLogMessage" maxOccurs="unbounded">
            <xs:complexType>
              <xs:simpleContent>
                <xs:extension base="xs:string">
                  <xs:attribute name="messageType" type="xs:string"/>
                  <xs:attribute name="messageGroup" type="xs:string"/>
                  <xs:attribute name="timestamp" type="xs:long" use="required"/>
                </xs:extension>
              </xs:simpleContent>
            </xs:complexType>
          </xs:element>
          <xs:element name="operationsData">
            <xs:complexType>
              <xs:sequence>
                <xs:element name="operations" minOccurs="0">
                  <xs:complexType>
                    <xs:sequence>
                      <xs:element name="operation" type="xs:string" minOccurs="0"
                                  maxOccurs="unbounded"/>
                    </xs:sequence>
                  </xs:complexType>
                </xs:element>
                <xs:element name="currentOperationIndex" type="xs:int" minOccurs="0"/>
                <xs:element name="currentOperationStep" type="xs:string" minOccurs="0"/>
                <xs:element name="currentOperationInfo" type="xs:string" minOccurs="0"/>
              </xs:sequence>
            </xs:complexType>
          </xs:element>
          <xs:element name="logAppend">
            <xs:complexType>
              <xs:simpleContent>
                <xs:extension base="xs:string">
                  <xs:attribute name="name" type="xs:string"/>
                  <xs:attribute name="start" type="xs:integer"/>
                </xs:extension>
              </xs:simpleContent>
            </xs:complexType>
          </xs:element>
          <xs:element name="lastTimestep" type="xs:unsignedInt"/>
        </xs:choice>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <!-- Where the workers of a pool run: named hosts, or whatever a job scheduler script gives. -->
  <xs:complexType name="KSDistributedWorkerPoolSettings">
    <xs:sequence>
      <xs:element name="maxParallelTasks" type="xs:unsignedInt"/>
      <xs:choice>
        <xs:element name="jobSchedulerScript" type="xs:string"/>
        <xs:element name="workerHost" maxOccurs="unbounded">
          <xs:complexType>
            <xs:sequence>
              <xs:element name="hostNameOrIp" type="xs:string"/>
              <xs:element name="remoteServicePort" type="xs:unsignedInt"/>
              <xs:element name="maxWorkersOnHost" type="xs:unsignedInt"/>
            </xs:sequence>
          </xs:complexType>
        </xs:element>
      </xs:choice>
    </xs:sequence>
  </xs:complexType>

  <xs:complexType name="DistributedWorkerRequest" abstract="true">
    <xs:complexContent>
      <xs:extension base="ksrq:Request">
        <xs:sequence>
          <xs:element name="poolId" type="ksrq:KSUid"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="DistributedWorkerCallbackRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:DistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="workerId" type="xs:unsignedInt"/>
          <xs:element name="workerHost" type="ksrq:HostInfo"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <!-- What a worker runs is another library's business: it derives from this type. -->
  <xs:complexType name="RunDistributedWorkerRequest" abstract="true">
    <xs:complexContent>
      <xs:extension base="ksrq:DistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="name" type="xs:string"/>
          <xs:element name="jobId" type="ksrq:KSJobId"/>
          <xs:element name="cores" type="xs:unsignedInt"/>
          <xs:element name="releaseCores" type="xs:boolean"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="GetDistributedWorkerInputRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:DistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="name" type="xs:string"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="GetDistributedWorkerInputReply">
    <xs:complexContent>
      <xs:extension base="ksrq:Reply">
        <xs:sequence>
          <xs:element name="status" type="xs:string"/>
          <xs:element name="taskId" type="xs:string" minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>

  <xs:complexType name="DistributedWorkerResultRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:DistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="taskId" type="xs:string"/>
          <xs:element name="status" type="xs:string"/>
          <xs:element name="errorMessage" type="xs:string" minOccurs="0"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
)XSD";

} // namespace

StandardRequestSchema::StandardRequestSchema() {
    m_schemaText += c_fragment;
}

} // namespace Kestrane
