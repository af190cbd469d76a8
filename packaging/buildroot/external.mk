include $(sort $(wildcard $(BR2_EXTERNAL_GSSIP_PATH)/package/*/*.mk))
