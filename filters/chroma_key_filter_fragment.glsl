// One-pass chroma key: pixels whose chroma lies near chroma_key become
// transparent over bgImage, with a soft edge (smoothness) and a spill
// reduction that greys out the key colour's tint near the edge (spill).
varying vec2 tex_coord;

uniform sampler2D fgImage;
uniform sampler2D bgImage;
uniform sampler2D tex_y;
uniform sampler2D tex_u;
uniform sampler2D tex_v;

// RGB to studio-range YUV; a row vector (r, g, b, 1) on the left.
uniform mat4 yuv_mat = mat4(0.182586, 0.614231, 0.062007, 0.062745,
                            -0.100644, -0.338572, 0.439216, 0.501961,
                            0.439216, -0.398942, -0.040274, 0.501961,
                            0.0, 0.0, 0.0, 1.0);
uniform vec4 color = vec4(1.0, 1.0, 1.0, 1.0);
uniform vec3 chromaKeyColor = vec3(0.0, 1.0, 0.0);
uniform vec2 pixel_size = vec2(1.0 / 1280.0, 1.0 / 720.0);
uniform float threshold = 0.75;
uniform float contrast = 1.0;
uniform float brightness = 0.0;
uniform float gamma = 1.0;
uniform vec2 chroma_key = vec2(0.163388997, 0.103018999);
uniform float similarity = 0.4;
uniform float smoothness = 0.0799999;
uniform float spill = 0.1000000001;

float getChromaDist(vec3 rgb)
{
    vec4 yuvx = vec4(rgb, 1.0) * yuv_mat;
    return distance(chroma_key, yuvx.yz);
}

float getBoxFilteredChromaDist(vec3 rgb, vec2 texCoord)
{
    vec2 h_pixel_size = pixel_size / 2.0;
    vec2 point_0 = vec2(pixel_size.x, h_pixel_size.y);
    vec2 point_1 = vec2(h_pixel_size.x, -pixel_size.y);
    float distVal = getChromaDist(texture2D(fgImage, texCoord - point_0).rgb);
    distVal += getChromaDist(texture2D(fgImage, texCoord + point_0).rgb);
    distVal += getChromaDist(texture2D(fgImage, texCoord - point_1).rgb);
    distVal += getChromaDist(texture2D(fgImage, texCoord + point_1).rgb);
    distVal *= 2.0;
    distVal += getChromaDist(rgb);
    return distVal / 9.0;
}

vec4 processChromaKey(vec4 rgba, vec2 texCoord)
{
    float chromaDist = getBoxFilteredChromaDist(rgba.rgb, texCoord);
    float baseMask = chromaDist - similarity;
    float fullMask = pow(clamp(baseMask / smoothness, 0.0, 1.0), 1.5);
    float spillVal = pow(clamp(baseMask / spill, 0.0, 1.0), 1.5);

    rgba *= color;
    rgba.a *= fullMask;

    float desat = clamp(rgba.r * 0.2126 + rgba.g * 0.7152 + rgba.b * 0.0722, 0.0, 1.0);
    rgba.rgb = vec3(desat) * (1.0 - spillVal) + rgba.rgb * spillVal;
    return rgba;
}

// A hard key by the RGB distance to chromaKeyColor; kept beside the soft key
// above and not used.
vec4 doChromaKeyWithThreshold(vec4 rgba)
{
    float dist = distance(rgba.rgb, chromaKeyColor);
    if (dist < threshold)
        rgba.a = 0.0;
    return rgba;
}

void main()
{
    vec4 rgba = texture2D(fgImage, tex_coord);
    rgba = processChromaKey(rgba, tex_coord);
    rgba.rgb = pow(rgba.rgb, vec3(gamma)) * contrast + brightness;
    vec4 bgColor = texture2D(bgImage, tex_coord);
    gl_FragColor = bgColor * (1.0 - rgba.a) + rgba * rgba.a;
}
