// Placeholder: filled by the change that brings this class family.
#ifndef VIREO_KESTRELWRAPPER_IKSPROGRAM_H
#define VIREO_KESTRELWRAPPER_IKSPROGRAM_H
#endif // VIREO_KESTRELWRAPPER_IKSPROGRAM_H
