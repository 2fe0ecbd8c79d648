# SPDX-License-Identifier: Apache-2.0
# Run at the end of the installation: writes an SPDX 2.3 document about the installed files, the sources
# that they were made from, and what they are linked with. Licences are those of the SPDX lines.
#
# sbom           path of the document
# name, version  of the project
# source_dir     its checkout
# dependencies   a list of NAME|VERSION|LICENCE|RELATIONSHIP
cmake_minimum_required(VERSION 3.22)

function(json_string out text)
    string(REPLACE "\\" "\\\\" text "${text}")
    string(REPLACE "\"" "\\\"" text "${text}")
    set(${out} "\"${text}\"" PARENT_SCOPE)
endfunction()

function(add_relationship from type to)
    list(APPEND relationships "{\"spdxElementId\": \"SPDXRef-${from}\", \"relationshipType\": \"${type}\",
     \"relatedSpdxElement\": \"SPDXRef-${to}\"}")
    set(relationships "${relationships}" PARENT_SCOPE)
endfunction()

# describe_file(ID NAME PATH LICENCE): adds a file to `files`. Sets `sha1`, and `licence` to that of the
# file's SPDX line. LICENCE is that of files without one.
function(describe_file id name path concluded)
    file(SHA1 ${path} sha1)
    file(SHA256 ${path} sha256)
    file(STRINGS ${path} line REGEX "SPDX-License-Identifier:" LIMIT_INPUT 300 LIMIT_COUNT 1)
    set(licence NONE)
    if(line MATCHES "SPDX-License-Identifier: ([A-Za-z0-9.-]+)")
        set(licence ${CMAKE_MATCH_1})
        set(concluded ${licence})
    endif()
    json_string(name "./${name}")
    list(APPEND files "{\"SPDXID\": \"SPDXRef-${id}\", \"fileName\": ${name},
     \"checksums\": [{\"algorithm\": \"SHA1\", \"checksumValue\": \"${sha1}\"},
                   {\"algorithm\": \"SHA256\", \"checksumValue\": \"${sha256}\"}],
     \"licenseConcluded\": \"${concluded}\", \"licenseInfoInFiles\": [\"${licence}\"],
     \"copyrightText\": \"NOASSERTION\"}")
    set(files "${files}" PARENT_SCOPE)
    set(sha1 ${sha1} PARENT_SCOPE)
    set(licence ${licence} PARENT_SCOPE)
endfunction()

# describe_package(ID NAME LICENCE COMMENT ROOT PATH...): a package of files below ROOT.
function(describe_package id package_name package_licence comment root)
    foreach(path IN LISTS ARGN)
        file(RELATIVE_PATH file_name ${root} ${path})
        list(LENGTH files number)
        describe_file(File-${number} "${file_name}" ${path} ${package_licence})
        list(APPEND checksums ${sha1})
        list(APPEND licences "\"${licence}\"")
        add_relationship(${id} CONTAINS File-${number})
    endforeach()
    list(SORT checksums)
    list(JOIN checksums "" checksums)
    string(SHA1 code "${checksums}")
    list(SORT licences)
    list(REMOVE_DUPLICATES licences)
    list(JOIN licences ", " licences)
    list(APPEND packages "{\"SPDXID\": \"SPDXRef-${id}\", \"name\": \"${package_name}\",
     \"versionInfo\": \"${version}\", \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": true,
     \"packageVerificationCode\": {\"packageVerificationCodeValue\": \"${code}\"},
     \"licenseConcluded\": \"${package_licence}\", \"licenseDeclared\": \"${package_licence}\",
     \"licenseInfoFromFiles\": [${licences}], \"copyrightText\": \"NOASSERTION\",
     \"comment\": \"${comment}\"}")
    foreach(variable packages files relationships)
        set(${variable} "${${variable}}" PARENT_SCOPE)
    endforeach()
    set(code ${code} PARENT_SCOPE)
endfunction()

function(describe_dependency dependency)
    string(REPLACE "|" ";" parts ${dependency})
    list(GET parts 0 dependency_name)
    list(GET parts 1 dependency_version)
    list(GET parts 2 licence)
    list(GET parts 3 relationship)
    string(MAKE_C_IDENTIFIER ${dependency_name} id)
    string(REPLACE "_" "-" id "Dependency-${id}")
    list(APPEND packages "{\"SPDXID\": \"SPDXRef-${id}\", \"name\": \"${dependency_name}\",
     \"versionInfo\": \"${dependency_version}\", \"downloadLocation\": \"NOASSERTION\",
     \"filesAnalyzed\": false, \"licenseConcluded\": \"NOASSERTION\", \"licenseDeclared\": \"${licence}\",
     \"copyrightText\": \"NOASSERTION\"}")
    add_relationship(Installed ${relationship} ${id})
    set(packages "${packages}" PARENT_SCOPE)
    set(relationships "${relationships}" PARENT_SCOPE)
endfunction()

set(packages)
set(files)
set(relationships)
set(installed)
foreach(path IN LISTS CMAKE_INSTALL_MANIFEST_FILES)
    if(NOT path STREQUAL sbom AND NOT IS_SYMLINK $ENV{DESTDIR}${path})
        list(APPEND installed $ENV{DESTDIR}${path})
    endif()
endforeach()
list(SORT installed)
file(GLOB_RECURSE driver LIST_DIRECTORIES false ${source_dir}/driver/*)
set(sources)
foreach(directory driver_check emulator java jni manager snapshot tool)
    file(GLOB_RECURSE found LIST_DIRECTORIES false ${source_dir}/${directory}/*)
    list(APPEND sources ${found})
endforeach()

describe_package(Driver ${name}-driver GPL-2.0-only
    "Reference driver in the same source archive. Nothing installed is made from it." ${source_dir}
    ${driver})
describe_package(Source ${name}-source Apache-2.0 "What the installed files are made from."
    ${source_dir} ${sources})
describe_package(Installed ${name} Apache-2.0 "What was installed, without symbolic links."
    $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX} ${installed})
add_relationship(DOCUMENT DESCRIBES Installed)
add_relationship(Installed GENERATED_FROM Source)
add_relationship(Driver OTHER Source)
foreach(dependency IN LISTS dependencies)
    describe_dependency(${dependency})
endforeach()

string(UUID uuid NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 NAME "${name} ${version} ${code}" TYPE SHA1)
string(TIMESTAMP created UTC) # of SOURCE_DATE_EPOCH, if that is set
foreach(variable packages files relationships)
    list(JOIN ${variable} ",\n    " ${variable})
endforeach()
file(WRITE $ENV{DESTDIR}${sbom} "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"${name}-${version}\",
  \"documentNamespace\": \"urn:uuid:${uuid}\",
  \"creationInfo\": {\"created\": \"${created}\", \"creators\": [\"Tool: cmake-${CMAKE_VERSION}\"]},
  \"packages\": [
    ${packages}
  ],
  \"files\": [
    ${files}
  ],
  \"relationships\": [
    ${relationships}
  ]
}
")
message(STATUS "Installing: $ENV{DESTDIR}${sbom}")
list(REMOVE_ITEM CMAKE_INSTALL_MANIFEST_FILES ${sbom})
list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${sbom})
