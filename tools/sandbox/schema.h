// The sandbox's own schema: what its operations keep in the tree for everybody to see.
#pragma once

#include <string_view>

namespace sandbox {

// An auxiliary class on every partition's root, so that (objectClass=partitionRoot) finds them.
inline constexpr char partition_root[] = "partitionRoot";
// The root's state: "on", or "splitting" or "merging" while such an operation runs.
inline constexpr char partition_state[] = "partitionState";
// On a server object: the names of its orphan partitions.
inline constexpr char orphan_partition[] = "orphanPartition";
inline constexpr char directory_server[] = "directoryServer";

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
objectclass ( 2.16.840.1.424242.2.2.1 NAME 'partitionRoot'
    DESC 'root entry of a partition'
    SUP top AUXILIARY
    MUST partitionState )
objectclass ( 2.16.840.1.424242.2.2.2 NAME 'directoryServer'
    DESC 'a server that holds partitions'
    SUP top STRUCTURAL
    MUST cn
    MAY ( description $ l $ labeledURI $ manager $ orphanPartition ) )
)";

} // namespace sandbox
