#include "module/naming/DFPrettyFilenameGenerator.h"

// Tag reading comes with the media library; until it is loaded there is no generator.
std::shared_ptr<DFPrettyFilenameGenerator> DFPrettyFilenameGenerator::sharedInstance() { return nullptr; }
