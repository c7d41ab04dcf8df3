#include "captureOptions.h"

uint32_t reportStepBytes(uint32_t reportStep) {
    return reportStep == 1 ? kDefaultReportStep : reportStep;
}
