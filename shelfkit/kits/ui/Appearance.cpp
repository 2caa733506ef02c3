#include "module/platform/ui/Appearance.h"

#include "module/platform/ui/BarButtonItem.h"
#include "module/platform/ui/Bundle.h"

namespace platform {

std::shared_ptr<AppearanceKit> AppearanceKit::sharedInstance() {
  static auto* instance = new std::shared_ptr<AppearanceKit>(std::make_shared<AppearanceKit>());
  return *instance;
}

Image AppearanceKit::imageWithName(const std::string& name, double size, const std::shared_ptr<Bundle>& bundle,
                                   const Color& color) {
  Image image;
  if (bundle) image.url = bundle->urlForImage(name);
  image.width = image.height = size;
  image.color = color;
  return image;
}

LargeTitleLabel::LargeTitleLabel() : Label("largeTitle") {}
SmallTitleLabel::SmallTitleLabel() : Label("smallTitle") {}
SmallDetailLabel::SmallDetailLabel() : Label("smallDetail") {}

SelectedBackgroundView::SelectedBackgroundView() { setBackgroundColor({"#dbeaff"}); }

BarButtonItem::BarButtonItem() : View("flexibleSpace") {}

BarButtonItem::BarButtonItem(const Image& image, int64_t /*style*/, Action action)
    : View("button"), action_(std::move(action)) {
  setProp("image", image.url);
  setProp("color", image.color.css);
  setProp("width", image.width);
  setProp("height", image.height);
  setProp("enabled", true);
  // Without a label of its own, the button is named as its bundle names its
  // image (and takes its keyboard shortcut), else after the image.
  const auto slash = image.url.find_last_of('/');
  std::string name = image.url.substr(slash == std::string::npos ? 0 : slash + 1);
  if (name.ends_with(".svg")) name.resize(name.size() - 4);
  std::optional<ImageLabel> label;
  if (auto found = Bundle::bundleForImageURL(image.url)) label = found->first->labelForImage(found->second);
  setProp("accessibilityLabel", label ? label->label : name);
  if (label && label->key) setProp("shortcut", *label->key);
}

std::shared_ptr<BarButtonItem> BarButtonItem::flexibleSpace() {
  return std::shared_ptr<BarButtonItem>(new BarButtonItem());
}

bool BarButtonItem::isEnabled() const {
  const auto& enabled = prop("enabled");
  return enabled.is_boolean() && enabled.get<bool>();
}

void BarButtonItem::tap() {
  if (isEnabled() && action_) action_(*this);
}

}  // namespace platform
