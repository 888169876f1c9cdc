include $(sort $(wildcard $(BR2_EXTERNAL_ZENTRAVA_PATH)/package/*/*.mk))
