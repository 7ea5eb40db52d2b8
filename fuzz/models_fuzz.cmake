# The model replies' parsers, compiled again with coverage for the reply fuzz targets.
add_library(ModelsFuzzCore STATIC
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/chat_wire.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/chat_types.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/model_backend_error.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/merl_proxy_error.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/merl_route_directive.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/models/openrouter_request.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/events/json_value.cpp
  ${PROJECT_SOURCE_DIR}/AimwiseCore/events/json_text.cpp
  ${PROJECT_SOURCE_DIR}/CaptureShared/common/text.cpp
  ${PROJECT_SOURCE_DIR}/CaptureShared/common/utf8.cpp)
target_include_directories(ModelsFuzzCore PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_options(ModelsFuzzCore PRIVATE ${instrument_flags})
target_link_libraries(ModelsFuzzCore PUBLIC PrivacyFuzzCore nlohmann_json::nlohmann_json)
foreach(target chat_reply_fuzz chat_stream_fuzz merl_reply_fuzz)
  target_link_libraries(${target} PRIVATE ModelsFuzzCore)
endforeach()
