# SPDX-License-Identifier: Apache-2.0
# For a product: $(call inherit-product, external/f2fs_snapshot/android/f2fs_snapshot.mk)

PRODUCT_PACKAGES += \
    f2fs_snapshot \
    f2fs_snapshotctl \
    f2fs_snapshot_helper \
    f2fs_snapshot_nightly.rc \
    libf2fs_snapshot \
    libf2fs_snapshot_manager

PRODUCT_PACKAGES_DEBUG += \
    f2fs_driver_check

SYSTEM_EXT_PRIVATE_SEPOLICY_DIRS += external/f2fs_snapshot/android/sepolicy
