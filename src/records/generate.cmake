# What is made from running_parameter_table.inc. The target `generate` rewrites the files in the source tree, where they
# are kept under version control; a test compares them.

add_library(rq_generate_text OBJECT generate_text.cpp)
target_link_libraries(rq_generate_text PRIVATE rq_warnings rq_records)

add_executable(rq_generate generate.cpp $<TARGET_OBJECTS:rq_generate_text>)
target_link_libraries(rq_generate PRIVATE rq_warnings rq_records)

add_custom_target(generate
  COMMAND rq_generate write "${PROJECT_SOURCE_DIR}"
  COMMENT "Writing the files made from the field table of the running parameters"
  VERBATIM)

add_test(NAME generated_files_are_current COMMAND rq_generate check "${PROJECT_SOURCE_DIR}")

rq_stage_file("${PROJECT_SOURCE_DIR}/data/actor.xml" actor.xml)

rq_test(test_records
  SOURCES running_parameter_test.cpp generate_test.cpp $<TARGET_OBJECTS:rq_generate_text>
  USES records sdk
  LIBRARIES RQ::TinyXML)
