# Copies one of etcd's API .proto files to OUTPUT without what only its Go
# build and HTTP gateway use (gogoproto options, google.api.http annotations
# and their imports), which the C++ stubs neither need nor can import.
# Run as: cmake -DINPUT=... -DOUTPUT=... -P StripEtcdProto.cmake
file(READ "${INPUT}" text)
string(REGEX REPLACE "import \"gogoproto/gogo.proto\";" "" text "${text}")
string(REGEX REPLACE "import \"google/api/annotations.proto\";" "" text "${text}")
string(REGEX REPLACE "option \\(gogoproto\\.[a-z_]+\\) = [a-z]+;" "" text "${text}")
# A binding may nest further bindings, one level deep.
string(REGEX REPLACE "additional_bindings {[^{}]*}" "" text "${text}")
string(REGEX REPLACE "option \\(google\\.api\\.http\\) = {[^{}]*};" "" text "${text}")
string(REGEX REPLACE "\\[\\(gogoproto\\.[^]]*\\]" "" text "${text}")
if(text MATCHES "gogoproto|google\\.api")
  message(FATAL_ERROR "${INPUT}: an annotation was left that the C++ stubs cannot import")
endif()
file(WRITE "${OUTPUT}" "${text}")
