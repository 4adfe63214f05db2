// The onboarding feature list.

#include "FuzzSupport.h"

#include <OrvellaKitWidgets/ORVOnboardingFeatureItem.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    ORVError error;
    (void)ORVOnboardingFeatureItem::featureItemsWithData("[]", &error);
    orv::fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ORVError error;
    const auto items = ORVOnboardingFeatureItem::featureItemsWithData(orv::fuzz::bytes(data, size), &error);
    if (items.has_value() == !error.isNull())
        orv::fuzz::fail("items or an error");
    if (items)
        for (const auto &item : *items)
            if (item->featureDescription().isNull() || item->imageURL().isEmpty() || item->needsImageLoading() == false)
                orv::fuzz::fail("an item has a text and an image to load");
    return 0;
}
