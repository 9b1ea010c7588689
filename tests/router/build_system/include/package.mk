define BuildPackage
show:
	@:$$(info $$(Package/$(1))) $$(info $$(Package/$(1)/conffiles))
prepare:
	$$(call Build/Prepare)
install:
	$$(call Package/$(1)/install,$$(IMAGE))
endef
