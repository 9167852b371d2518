include $(sort $(wildcard $(BR2_EXTERNAL_LOCATION_SERVICE_PATH)/*/*.mk))
