// The sandbox's own schema: what its operations keep in the tree for everybody to see.
#pragma once

#include <string_view>

namespace sandbox {

// Where the sandbox keeps entries of its own, a naming context beside the tree.
inline constexpr char system_base[] = "cn=system";

// An auxiliary class on every partition's root, so that (objectClass=partitionRoot) finds them.
inline constexpr char partition_root[] = "partitionRoot";
// The root's state: "on", or "splitting" or "merging" while such an operation runs.
inline constexpr char partition_state[] = "partitionState";
// On a server object: the names of its orphan partitions.
inline constexpr char orphan_partition[] = "orphanPartition";
inline constexpr char directory_server[] = "directoryServer";
// On a server object: a value for each replica that it holds (replicas.h has the form).
inline constexpr char held_replica[] = "heldReplica";

// On a server object: its replication filter as flat text.
inline constexpr char replication_filter[] = "replicationFilter";

// What a request for synchronisation leaves for everybody to see, an entry of its own.
inline constexpr char synchronisation_request[] = "synchronisationRequest";
inline constexpr char request_kind[] = "requestKind";   // receive, send, partition or schema
inline constexpr char request_state[] = "requestState"; // waiting or done
inline constexpr char requested_partition[] = "requestedPartition";
inline constexpr char requested_server[] = "requestedServer";
inline constexpr char source_server[] = "sourceServer";
inline constexpr char requested_by[] = "requestedBy";
inline constexpr char requested_at[] = "requestedAt";
inline constexpr char request_delay[] = "requestDelay"; // seconds
inline constexpr char done_at[] = "doneAt";

// What a background process leaves for everybody to see, on its own entry.
inline constexpr char background_process[] = "backgroundProcess";
inline constexpr char process_state[] = "processState"; // idle or running
inline constexpr char process_runs[] = "processRuns";
inline constexpr char process_started[] = "processStarted"; // the last run
inline constexpr char process_ended[] = "processEnded";
inline constexpr char process_report[] = "processReport";

// In slapd.conf's form. The OIDs lie under 2.16.840.1.424242.2: .1 attribute types, .2 classes.
inline constexpr std::string_view schema = R"(
attributetype ( 2.16.840.1.424242.2.1.1 NAME 'partitionState'
    DESC 'state of the partition whose root this entry is: on, splitting, merging'
    EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15{32} SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.2 NAME 'orphanPartition'
    DESC 'name of a partition on this server whose parent partition no server holds'
    EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )
attributetype ( 2.16.840.1.424242.2.1.20 NAME 'heldReplica'
    DESC 'replica on this server: number, type, state, flags, times, partition'
    EQUALITY caseIgnoreMatch SUBSTR caseIgnoreSubstringsMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )
attributetype ( 2.16.840.1.424242.2.1.22 NAME 'processState'
    DESC 'what the background process does now: idle, running'
    EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15{32} SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.23 NAME 'processRuns'
    DESC 'how often the background process has run to its end'
    EQUALITY integerMatch ORDERING integerOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.24 NAME 'processStarted'
    DESC 'when the last run began'
    EQUALITY generalizedTimeMatch ORDERING generalizedTimeOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.24 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.25 NAME 'processEnded'
    DESC 'when the last complete run ended'
    EQUALITY generalizedTimeMatch ORDERING generalizedTimeOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.24 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.26 NAME 'processReport'
    DESC 'what the last complete run found and did'
    EQUALITY caseIgnoreMatch SUBSTR caseIgnoreSubstringsMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.21 NAME 'replicationFilter'
    DESC 'classes and attributes that this server replicates: class$attribute$...$$...$'
    EQUALITY octetStringMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.27 NAME 'requestKind'
    DESC 'what was asked for: receive, send, partition, schema'
    EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15{32} SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.28 NAME 'requestState'
    DESC 'state of the request: waiting, done'
    EQUALITY caseIgnoreMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.15{32} SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.29 NAME 'requestedPartition'
    DESC 'root of the partition to be synchronised'
    EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.30 NAME 'requestedServer'
    DESC 'server that receives, sends or synchronises'
    EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.31 NAME 'sourceServer'
    DESC 'server that the updates come from'
    EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.32 NAME 'requestedBy'
    DESC 'who asked'
    EQUALITY distinguishedNameMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.33 NAME 'requestedAt'
    DESC 'when it was asked'
    EQUALITY generalizedTimeMatch ORDERING generalizedTimeOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.24 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.34 NAME 'requestDelay'
    DESC 'seconds to wait before it is done'
    EQUALITY integerMatch ORDERING integerOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 2.16.840.1.424242.2.1.35 NAME 'doneAt'
    DESC 'when it was done'
    EQUALITY generalizedTimeMatch ORDERING generalizedTimeOrderingMatch
    SYNTAX 1.3.6.1.4.1.1466.115.121.1.24 SINGLE-VALUE )
objectclass ( 2.16.840.1.424242.2.2.1 NAME 'partitionRoot'
    DESC 'root entry of a partition'
    SUP top AUXILIARY
    MUST partitionState )
objectclass ( 2.16.840.1.424242.2.2.2 NAME 'directoryServer'
    DESC 'a server that holds partitions'
    SUP top STRUCTURAL
    MUST cn
    MAY ( description $ l $ labeledURI $ manager $ orphanPartition $ heldReplica $
        replicationFilter ) )
objectclass ( 2.16.840.1.424242.2.2.20 NAME 'systemContainer'
    DESC 'holds entries of the sandbox itself'
    SUP top STRUCTURAL
    MUST cn
    MAY description )
objectclass ( 2.16.840.1.424242.2.2.21 NAME 'backgroundProcess'
    DESC 'a process that runs on request and leaves its trace here'
    SUP top STRUCTURAL
    MUST ( cn $ processState $ processRuns )
    MAY ( description $ processStarted $ processEnded $ processReport ) )
objectclass ( 2.16.840.1.424242.2.2.22 NAME 'synchronisationRequest'
    DESC 'what was asked of the servers, and what became of it'
    SUP top STRUCTURAL
    MUST ( cn $ requestKind $ requestState $ requestedPartition $ requestedBy $ requestedAt )
    MAY ( requestedServer $ sourceServer $ requestDelay $ doneAt ) )
)";

} // namespace sandbox
