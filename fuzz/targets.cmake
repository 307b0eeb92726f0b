# The fuzz targets: each is NAME.cpp here, with seeds in corpus/NAME, and links one layer.
set(KFP_FUZZ_TARGETS
  base64 config control_request http_date item_row json multistatus pem response_head url_path
  xml_events)
set(KFP_FUZZ_LAYER_config kfp_bridge)
set(KFP_FUZZ_LAYER_control_request kfp_host)
set(KFP_FUZZ_LAYER_item_row kfp_replica)
set(KFP_FUZZ_LAYER_pem kfp_bridge)
set(KFP_FUZZ_LAYER_multistatus kfp_webdav)
foreach(target IN LISTS KFP_FUZZ_TARGETS)
  if(NOT DEFINED KFP_FUZZ_LAYER_${target})
    set(KFP_FUZZ_LAYER_${target} kfp_platform)
  endif()
endforeach()
