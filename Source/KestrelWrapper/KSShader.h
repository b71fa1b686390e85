// Placeholder: filled by the change that brings this class family.
#ifndef VIREO_KESTRELWRAPPER_KSSHADER_H
#define VIREO_KESTRELWRAPPER_KSSHADER_H
#endif // VIREO_KESTRELWRAPPER_KSSHADER_H
