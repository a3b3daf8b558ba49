# The etcd store of the settings service is optional: it is built when gRPC,
# protobuf and etcd's API definitions (Debian's golang-etcd-server-dev) are
# there, and QELSS_ETCD=ON makes their absence an error.
set(QELSS_ETCD AUTO CACHE STRING "Build the service's etcd store (ON, OFF or AUTO)")
set(QELSS_ETCD_SOURCE /usr/share/gocode/src/go.etcd.io/etcd CACHE PATH
    "etcd's Go sources, whose API .proto files the client is generated from")
set(QELSS_HAVE_ETCD OFF)
if(QELSS_ETCD STREQUAL "OFF")
  return()
endif()

pkg_check_modules(GRPCPP IMPORTED_TARGET grpc++)
pkg_check_modules(PROTOBUF IMPORTED_TARGET protobuf)
find_program(QELSS_PROTOC protoc)
find_program(QELSS_GRPC_PLUGIN grpc_cpp_plugin)
set(_etcd_protos mvcc/mvccpb/kv auth/authpb/auth etcdserver/etcdserverpb/rpc)
set(_etcd_found ${GRPCPP_FOUND})
foreach(need PROTOBUF_FOUND QELSS_PROTOC QELSS_GRPC_PLUGIN)
  if(NOT ${need})
    set(_etcd_found OFF)
  endif()
endforeach()
foreach(proto ${_etcd_protos})
  if(NOT EXISTS ${QELSS_ETCD_SOURCE}/${proto}.proto)
    set(_etcd_found OFF)
  endif()
endforeach()
if(NOT _etcd_found)
  if(QELSS_ETCD STREQUAL "ON")
    message(FATAL_ERROR "QELSS_ETCD=ON but gRPC, protobuf or etcd's .proto files are missing "
                        "(scripts/install-deps.sh installs them)")
  endif()
  message(STATUS "etcd store: not built (gRPC, protobuf or etcd's .proto files missing)")
  return()
endif()

set(_proto_root ${PROJECT_BINARY_DIR}/etcd-api)
set(_sources)
foreach(proto ${_etcd_protos})
  set(_stripped ${_proto_root}/etcd/${proto}.proto)
  add_custom_command(
    OUTPUT ${_stripped}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${QELSS_ETCD_SOURCE}/${proto}.proto -DOUTPUT=${_stripped}
            -P ${PROJECT_SOURCE_DIR}/cmake/StripEtcdProto.cmake
    DEPENDS ${QELSS_ETCD_SOURCE}/${proto}.proto ${PROJECT_SOURCE_DIR}/cmake/StripEtcdProto.cmake
    COMMENT "Taking etcd's ${proto}.proto")
  list(APPEND _stripped_all ${_stripped})
endforeach()
foreach(proto ${_etcd_protos})
  set(_out ${_proto_root}/etcd/${proto})
  set(_outputs ${_out}.pb.cc ${_out}.pb.h)
  set(_grpc_arguments)
  if(proto STREQUAL "etcdserver/etcdserverpb/rpc")
    list(APPEND _outputs ${_out}.grpc.pb.cc ${_out}.grpc.pb.h)
    set(_grpc_arguments --grpc_out=${_proto_root} --plugin=protoc-gen-grpc=${QELSS_GRPC_PLUGIN})
  endif()
  add_custom_command(
    OUTPUT ${_outputs}
    COMMAND ${QELSS_PROTOC} -I ${_proto_root} --cpp_out=${_proto_root} ${_grpc_arguments}
            ${_proto_root}/etcd/${proto}.proto
    DEPENDS ${_stripped_all}
    COMMENT "Generating the C++ client of etcd's ${proto}.proto")
  list(APPEND _sources ${_out}.pb.cc)
  if(_grpc_arguments)
    list(APPEND _sources ${_out}.grpc.pb.cc)
  endif()
endforeach()

# Generated code: built without the project's warnings.
add_library(qelss_etcd_api STATIC ${_sources})
target_include_directories(qelss_etcd_api SYSTEM PUBLIC ${_proto_root})
target_link_libraries(qelss_etcd_api PUBLIC PkgConfig::GRPCPP PkgConfig::PROTOBUF)
set(QELSS_HAVE_ETCD ON)
message(STATUS "etcd store: built")
